#ifndef BUNDLECTL_PUT_INSTALLER_H
#define BUNDLECTL_PUT_INSTALLER_H

#include "put/bundle_archive.h"
#include "put/place.h"
#include "put/report.h"
#include "put/store.h"
#include "put/verdict.h"

#include <chrono>
#include <cstddef>
#include <optional>
#include <string>

namespace Put {

struct InstallOptions {
    CommonOptions common;
    std::string source;    ///< an archive or a bundle's directory
    std::string key;       ///< the public key of the required signature; empty: any signature, or none
    std::string directory; ///< its name in the collection; empty: its present name, or the bundle's name
    std::string soak = "10s";
    long keep = 3;
    bool force = false; ///< install although lint finds errors
};

/// Installs one version of a bundle into the collection. If it does not run there, restores the former version. For one
/// installation only.
class Installer {
public:
    Installer(const Store& store, const InstallOptions& options) : m_store(store), m_options(options) {}

    /// @throws Refusal before anything in the collection has changed
    int Put();

private:
    void Stage(Shelf& shelf);
    void ReadSource();
    void RequireGood(const std::string& staged);
    void RequireSameKind() const;
    int Await(Shelf& shelf, const Model::Installation& installation, const Verdict& verdict);
    int GoBack(Shelf& shelf, const Model::Installation& installation, const Outcome& outcome);
    Awaited TheBundle() const { return {m_name, m_directory}; }

    const Store& m_store;
    const InstallOptions& m_options;
    bool m_isArchive = false;
    Contents m_contents; // list of a source directory
    std::string m_name;
    std::string m_directory;
    std::optional<Placed> m_former;
    std::optional<int> m_formerNumber; // the version that a failure restores
    Report m_report;
};

} // namespace Put

#endif
