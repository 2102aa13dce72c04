#include "removal_check.h"

#include "printable.h"

#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>

#include <algorithm>
#include <cstddef>
#include <memory>
#include <utility>

namespace {

/// The remaining files of a tree, and its folders without a file.
class Leftovers {
public:
    explicit Leftovers(const std::string& path) { Add(path); }

    std::string Text() const
    {
        return '"' + Printable(m_first) + '"' + (m_count > 1 ? " and " + std::to_string(m_count - 1) + " more" : "");
    }

private:
    void Add(const std::string& path)
    {
        const std::size_t before = m_count;
        struct stat status {};
        if (::lstat(path.c_str(), &status) == 0 && S_ISDIR(status.st_mode)) {
            AddEntries(path);
        }
        if (m_count == before && m_count++ == 0) {
            m_first = path;
        }
    }

    void AddEntries(const std::string& path)
    {
        const std::unique_ptr<DIR, int (*)(DIR*)> entries(::opendir(path.c_str()), ::closedir);
        while (const dirent* const entry = entries ? ::readdir(entries.get()) : nullptr) {
            const std::string name = entry->d_name;
            if (name != "." && name != "..") {
                Add(std::string(path).append("/").append(name));
            }
        }
    }

    std::size_t m_count = 0;
    std::string m_first;
};

} // namespace

RemovalCheck::RemovalCheck(const std::vector<std::string>& directories)
{
    for (const std::string& path : directories) {
        // For a link to a directory, holds the link itself, because the link is removed.
        m_directories.push_back({path, Common::UniqueFd(::open(path.c_str(), O_PATH | O_NOFOLLOW | O_CLOEXEC))});
    }
}

std::string RemovalCheck::Left() const
{
    if (!std::all_of(m_directories.begin(), m_directories.end(), IsThere)) {
        return "";
    }
    return m_directories.empty() ? "" : Leftovers(m_directories.front().path).Text();
}

bool RemovalCheck::IsThere(const Directory& directory)
{
    struct stat before {};
    struct stat now {};
    return ::fstat(directory.held.Get(), &before) == 0 && ::lstat(directory.path.c_str(), &now) == 0 &&
           before.st_dev == now.st_dev && before.st_ino == now.st_ino;
}
