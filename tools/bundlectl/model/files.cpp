#include "files.h"

#include "common/unique_fd.h"

#include <dirent.h>
#include <fcntl.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <climits>
#include <cstdlib>
#include <cstring>
#include <memory>

namespace Model {

namespace {

struct DirCloser {
    void operator()(DIR* dir) const { ::closedir(dir); }
};

struct Freed {
    void operator()(char* memory) const { std::free(memory); }
};

} // namespace

std::optional<std::string> ReadFileAtMost(const std::string& path, std::size_t limit)
{
    // Non-blocking, because opening a FIFO in the file's place would wait.
    const Common::UniqueFd fd(::open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK));
    if (!fd.IsOpen()) {
        return std::nullopt;
    }
    std::string text;
    std::array<char, 4096> chunk;
    while (text.size() < limit) {
        const ssize_t size = ::read(fd.Get(), chunk.data(), std::min(chunk.size(), limit - text.size()));
        if (size < 0 && errno == EINTR) {
            continue;
        }
        if (size < 0) {
            return std::nullopt;
        }
        if (size == 0) {
            break;
        }
        text.append(chunk.data(), static_cast<std::size_t>(size));
    }
    return text;
}

std::optional<std::string> ReadLink(const std::string& path)
{
    std::array<char, PATH_MAX> target;
    const ssize_t size = ::readlink(path.c_str(), target.data(), target.size());
    if (size < 0) {
        return std::nullopt;
    }
    return std::string(target.data(), static_cast<std::size_t>(size));
}

std::optional<std::vector<std::string>> ListDirectory(const std::string& path)
{
    const std::unique_ptr<DIR, DirCloser> directory(::opendir(path.c_str()));
    if (!directory) {
        return std::nullopt;
    }
    std::vector<std::string> names;
    while (const dirent* const entry = ::readdir(directory.get())) {
        if (std::strcmp(entry->d_name, ".") != 0 && std::strcmp(entry->d_name, "..") != 0) {
            names.emplace_back(entry->d_name);
        }
    }
    return names;
}

std::vector<std::string> SplitAtNul(const std::string& text)
{
    std::vector<std::string> pieces;
    for (std::size_t begin = 0; begin < text.size();) {
        const std::size_t end = std::min(text.find('\0', begin), text.size());
        pieces.push_back(text.substr(begin, end - begin));
        begin = end + 1;
    }
    return pieces;
}

std::string RealPath(const std::string& path)
{
    const std::unique_ptr<char, Freed> real(::realpath(path.c_str(), nullptr));
    return real ? std::string(real.get()) : path;
}

std::string BaseName(const std::string& path)
{
    return path.substr(path.rfind('/') + 1);
}

std::string AbsolutePath(const std::string& directory, const std::string& path)
{
    return path.empty() || path.front() == '/' ? path : directory + "/" + path;
}

} // namespace Model
