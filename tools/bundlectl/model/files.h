#ifndef BUNDLECTL_MODEL_FILES_H
#define BUNDLECTL_MODEL_FILES_H

#include <cstddef>
#include <optional>
#include <string>
#include <vector>

/// Small helpers for files and /proc. They throw only std::bad_alloc, and never wait.
namespace Model {

/// The beginning of a file, up to a size. Empty, with errno set, when the file cannot be opened or read.
std::optional<std::string> ReadFileAtMost(const std::string& path, std::size_t limit = std::size_t{1024} * 1024);

/// The target of a symbolic link. Empty, with errno set, when the file is not a link or may not be read.
std::optional<std::string> ReadLink(const std::string& path);

/// The names in a directory without "." and "..", in the directory's own order. Empty when it cannot be read.
std::optional<std::vector<std::string>> ListDirectory(const std::string& path);

/// The pieces of a text between NULs.
std::vector<std::string> SplitAtNul(const std::string& text);

/// The absolute path without links; the unchanged path when the file does not exist.
std::string RealPath(const std::string& path);

/// The part after the last "/".
std::string BaseName(const std::string& path);

/// The path itself if it is absolute, otherwise the path below directory.
std::string AbsolutePath(const std::string& directory, const std::string& path);

} // namespace Model

#endif
