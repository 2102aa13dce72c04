// Checks the bundle's files: who may write them, and where links lead.
#include "model/files.h"
#include "printable.h"
#include "subject.h"

#include <sys/stat.h>

#include <algorithm>

namespace Lint {

namespace {

constexpr Rule WRITABLE_BY_OTHERS{"writable-by-others", Severity::WARNING, "others may write a file of the bundle",
                                  "The server runs the bundle with its own rights, usually root's.", "chmod o-w FILE."};
constexpr Rule LINK_OUTSIDE{"link-outside-bundle", Severity::WARNING, "a link leads out of the bundle",
                            "What it leads to is not packed, not updated and not removed with the bundle.",
                            "Put the file into the bundle."};
constexpr Rule MOUNT_POINT{"mount-point", Severity::WARNING, "another file system is mounted in the bundle",
                           "It can neither be removed nor exchanged with the bundle.",
                           "Mount it outside of the collection."};

/// Whether a link in this folder leads out of the root. Does not follow further links.
bool LeadsOut(const std::string& target, std::size_t depth)
{
    if (target.substr(0, 1) == "/") {
        return true;
    }
    for (std::size_t begin = 0; begin < target.size();) {
        const std::size_t end = std::min(target.find('/', begin), target.size());
        const std::string part = target.substr(begin, end - begin);
        begin = end + 1;
        if (part == "..") {
            if (depth == 0) {
                return true;
            }
            --depth;
        } else if (part != "." && !part.empty()) {
            ++depth;
        }
    }
    return false;
}

class FileWalk {
public:
    explicit FileWalk(const Check& check) : m_check(check) {}

    void Run()
    {
        struct stat status {};
        if (::stat(m_check.bundle.path.c_str(), &status) == 0) {
            m_device = status.st_dev;
            Walk(m_check.bundle.path, 0);
        }
    }

private:
    void Walk(const std::string& folder, std::size_t depth);
    void Visit(const std::string& path, std::size_t depth);

    const Check& m_check;
    dev_t m_device = 0;
};

void FileWalk::Walk(const std::string& folder, std::size_t depth)
{
    constexpr std::size_t deepest = 64;
    std::vector<std::string> names = Model::ListDirectory(folder).value_or(std::vector<std::string>());
    std::sort(names.begin(), names.end());
    for (const std::string& name : names) {
        if (depth < deepest) {
            Visit(folder + "/" + name, depth);
        }
    }
}

void FileWalk::Visit(const std::string& path, std::size_t depth)
{
    struct stat status {};
    if (::lstat(path.c_str(), &status) != 0) {
        return;
    }
    if (S_ISLNK(status.st_mode)) {
        const std::string target = Model::ReadLink(path).value_or("");
        if (LeadsOut(target, depth)) {
            m_check.Add(LINK_OUTSIDE, path, 0, "It leads to " + Printable(target) + ".");
        }
        return;
    }
    if ((status.st_mode & S_IWOTH) != 0) {
        m_check.Add(WRITABLE_BY_OTHERS, path, 0, "Every user may write it.");
    }
    if (S_ISDIR(status.st_mode)) {
        if (status.st_dev != m_device) {
            m_check.Add(MOUNT_POINT, path, 0, "It is a mount point.");
            return;
        }
        Walk(path, depth + 1);
    }
}

} // namespace

void CheckFiles(const Check& check)
{
    FileWalk(check).Run();
}

Rules FileRules()
{
    return {&WRITABLE_BY_OTHERS, &LINK_OUTSIDE, &MOUNT_POINT};
}

} // namespace Lint
