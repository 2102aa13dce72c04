#ifndef BUNDLECTL_MODEL_FILES_H
#define BUNDLECTL_MODEL_FILES_H

#include <cstddef>
#include <optional>
#include <string>
#include <vector>

/// Small look-ups of files and of /proc. Nothing here throws but std::bad_alloc, and nothing waits.
namespace Model {

/// At most so many bytes of a file. Empty, with errno set, when it cannot be opened or read.
std::optional<std::string> ReadFileAtMost(const std::string& path, std::size_t limit = std::size_t{1024} * 1024);

/// Where a symbolic link leads. Empty, with errno set, when it is none or may not be read.
std::optional<std::string> ReadLink(const std::string& path);

/// The names in a directory but "." and "..", in the directory's own order. Empty when it cannot be read.
std::optional<std::vector<std::string>> ListDirectory(const std::string& path);

/// The pieces of a text between NULs.
std::vector<std::string> SplitAtNul(const std::string& text);

/// The absolute path without links; the path as it is when there is no such file.
std::string RealPath(const std::string& path);

/// The part after the last "/".
std::string BaseName(const std::string& path);

/// path when it is absolute, else below directory.
std::string AbsolutePath(const std::string& directory, const std::string& path);

} // namespace Model

#endif
