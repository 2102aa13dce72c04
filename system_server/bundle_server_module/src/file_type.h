#ifndef FILE_TYPE_H
#define FILE_TYPE_H

#include <sys/types.h>

#include <optional>
#include <string>

namespace SystemServer {

/// The type of what a path leads to, with the bits of S_IFMT. Asked of the system: the framework's own tests fail for a
/// file with a time after January 2038 where it was built with times of 32 bits.
/// @return empty with errno when it is unknown
std::optional<mode_t> FileType(const std::string& path);

/// Whether a call that failed with this error has shown that there is nothing under the name. A failing disk or an
/// absent server shows nothing.
bool MeansAbsence(int error);

/// Whether an entry of the collection is a directory, or a link to one. What is missing is none. What cannot be looked
/// at is none either, and the log says why.
bool IsDirectory(const std::string& path);

} // namespace SystemServer

#endif
