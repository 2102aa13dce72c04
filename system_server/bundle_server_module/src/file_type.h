#ifndef FILE_TYPE_H
#define FILE_TYPE_H

#include <sys/types.h>

#include <optional>
#include <string>

/// The kind of file behind a name. These functions call the system directly: where the framework was built with 32-bit
/// times, its own tests fail for a file with a time after January 2038. Any thread; nothing here throws.
namespace SystemServer {

/// The type of the file that a path leads to: the bits of S_IFMT.
/// @return empty with errno when it is unknown, a link that leads nowhere included
std::optional<mode_t> FileType(const std::string& path);

/// Whether this error proves that the name does not exist. A failing disk or an absent server proves nothing.
bool MeansAbsence(int error);

/// The kind of an entry of a directory. A link counts as its target. A link that leads nowhere exists, but is not a
/// directory. With a failing disk or an absent server the kind is unknown, which is no reason to stop a bundle.
enum class EntryKind { ABSENT, DIRECTORY, OTHER, UNKNOWN };

/// @param directory a descriptor that the path is relative to, or AT_FDCWD
/// @return with errno when it is UNKNOWN
EntryKind KindAt(int directory, const char* path);

/// Like KindAt, but needs no system call for most entries.
/// @param type d_type of the entry's dirent
EntryKind KindOfEntry(int directory, const char* name, unsigned char type);

/// Whether an entry of the collection is a directory, or a link to one. An entry of unknown kind counts as no
/// directory, and the log says why.
bool IsDirectory(const std::string& path);

} // namespace SystemServer

#endif
