// Creates the directory of a new bundle's project.
#include "lint/lint.h"
#include "new_project.h"
#include "printable.h"
#include "put/refusal.h"
#include "put/tree.h"

#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <stdexcept>

namespace NewBundle {

namespace {

[[noreturn]] void Refuse(const std::string& path, const std::string& what)
{
    throw Put::Refusal(Printable(path) + " " + what);
}

/// A directory beside the final one, in which the project is made. The destructor removes it and its content, unless it
/// has become the final one.
class Draft {
public:
    explicit Draft(const std::string& directory) : m_path(directory + ".new-XXXXXX")
    {
        const std::size_t name = m_path.rfind('/') + 1; // 0 without a slash
        m_path.insert(name, ".");
        if (::mkdtemp(m_path.data()) == nullptr) {
            const int error = errno;
            Refuse(directory, std::string("cannot be made: ") + std::strerror(error) + ".");
        }
    }
    Draft(const Draft&) = delete;
    Draft& operator=(const Draft&) = delete;
    ~Draft()
    {
        try {
            if (!m_path.empty()) {
                Put::RemoveTree(m_path);
            }
        } catch (const std::exception&) {
            // The refusal that is being thrown says more than this failure.
        }
    }

    const std::string& Path() const { return m_path; }

    /// In one step: a rename replaces an empty directory and nothing else.
    void MoveTo(const std::string& directory)
    {
        if (::mkdir(directory.c_str(), 0700) != 0) {
            const int error = errno;
            Refuse(directory, error == EEXIST ? "exists already, and is left as it is."
                                              : std::string("cannot be made: ") + std::strerror(error) + ".");
        }
        if (std::rename(m_path.c_str(), directory.c_str()) != 0) {
            const int error = errno;
            ::rmdir(directory.c_str());
            Refuse(directory, std::string("cannot be made: ") + std::strerror(error) + ".");
        }
        m_path.clear();
    }

private:
    std::string m_path;
};

/// Sets the permissions of folders and files by the user's mask.
void Fill(const std::string& root, const std::vector<ProjectFile>& files)
{
    const mode_t mask = ::umask(0);
    ::umask(mask);
    constexpr mode_t folder = 0755;
    for (const ProjectFile& file : files) {
        for (std::size_t slash = file.path.find('/'); slash != std::string::npos;
             slash = file.path.find('/', slash + 1)) {
            const std::string path = root + "/" + file.path.substr(0, slash);
            if (::mkdir(path.c_str(), folder) != 0 && errno != EEXIST) {
                const int error = errno;
                Refuse(path, std::string("cannot be made: ") + std::strerror(error) + ".");
            }
        }
        Put::WriteNewFile(root + "/" + file.path, file.text, file.mode & ~mask);
    }
    if (::chmod(root.c_str(), folder & ~mask) != 0) {
        const int error = errno;
        Refuse(root, std::string("cannot be given its mode: ") + std::strerror(error) + ".");
    }
}

/// Checks the manifest with lint. Ignores missing files in "bin", which are built later.
void RequireCleanManifest(const std::string& root)
{
    const std::string bundle = root + "/bundle";
    const std::string manifest = "BundleManifest.ini";
    for (const Lint::Finding& finding : Lint::LintPaths({bundle}, {}).findings) {
        const bool isOfManifest =
            finding.file.size() >= manifest.size() &&
            finding.file.compare(finding.file.size() - manifest.size(), manifest.size(), manifest) == 0;
        if (isOfManifest && std::string(finding.rule->id) != "item-missing") {
            throw Put::Refusal("A bundle cannot have this name (" + std::string(finding.rule->id) + ": " +
                               finding.text + "). Choose another one.");
        }
    }
}

} // namespace

void Write(const std::string& directory, const std::vector<ProjectFile>& files)
{
    if (Put::ExistsAt(directory)) {
        Refuse(directory, "exists already, and is left as it is.");
    }
    Draft draft(directory);
    Fill(draft.Path(), files);
    RequireCleanManifest(draft.Path());
    draft.MoveTo(directory);
}

} // namespace NewBundle
