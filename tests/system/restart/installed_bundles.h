#ifndef TESTS_SYSTEM_RESTART_INSTALLED_BUNDLES_H
#define TESTS_SYSTEM_RESTART_INSTALLED_BUNDLES_H

#include "support/collection_builder.h"
#include "support/files.h"

#include <map>
#include <set>
#include <string>
#include <vector>

/// The bundles of the restart test: as installed, and as a killed server may have left them. A server writes
/// to no bundle, so each must be as it was installed, except one that was being deleted.
class InstalledBundles {
public:
    /// The bundle that is added and removed, and the one that is deleted by request.
    static constexpr const char GUEST[] = "guest";
    static constexpr const char LARGE[] = "large";

    InstalledBundles(const CollectionBuilder& collection, const CollectionBuilder& staging)
        : m_collection(collection), m_staging(staging)
    {}

    static const std::map<std::string, std::vector<std::string>>& Items();

    /// Writes all bundles beside the collection and installs all but the guest.
    void Write();
    /// Moves the bundle in one step: the server finds the whole bundle or nothing.
    void Install(const std::string& bundle);
    void Remove(const std::string& bundle);
    /// Replaces the bundle's manifest, in one step.
    void Update(const std::string& bundle);

    const std::set<std::string>& Names() const { return m_installed; }
    bool Has(const std::string& bundle) const { return m_installed.count(bundle) != 0; }
    std::string In(const std::string& name) const { return m_collection / name; }

    // For the large bundle after a kill during its deletion:

    /// Records what is left of it. Returns a description.
    std::string TakeLarge();
    bool IsHalfDeleted() const { return m_isHalfDeleted; }
    void ForgetLarge();

    /// Expects every other bundle to be as it was installed, and nothing else in the collection.
    void ExpectUnchanged() const;

    /// The bundles and items in the collection. A half deleted bundle counts with what is left, if it has its manifest.
    std::vector<std::pair<std::string, std::string>> ItemsDue() const;

private:
    const CollectionBuilder& m_collection;
    const CollectionBuilder& m_staging;
    std::map<std::string, Tree> m_originals;
    std::set<std::string> m_installed;
    bool m_isHalfDeleted = false; // the rest of the large bundle is in the collection
    int m_version = 0;
};

#endif
