#ifndef FILE_TYPE_H
#define FILE_TYPE_H

#include <sys/types.h>

#include <optional>
#include <string>

/// What stands under a name of the file system. Asked of the system itself: the framework's own tests fail for a file
/// with a time after January 2038 where it was built with times of 32 bits. Any thread; nothing here throws.
namespace SystemServer {

/// The type of what a path leads to, with the bits of S_IFMT.
/// @return empty with errno when it is unknown, a link that leads nowhere included
std::optional<mode_t> FileType(const std::string& path);

/// Whether a call that failed with this error has shown that there is nothing under the name. A failing disk or an
/// absent server shows nothing.
bool MeansAbsence(int error);

/// What a name in a directory stands for. A link counts as what it leads to. A link that leads nowhere is there all the
/// same, but is no directory. A failing disk or an absent server leaves the kind unknown, which is no reason to stop a
/// bundle.
enum class EntryKind { ABSENT, DIRECTORY, OTHER, UNKNOWN };

/// @param directory a descriptor that the path is relative to, or AT_FDCWD
/// @return with errno when it is UNKNOWN
EntryKind KindAt(int directory, const char* path);

/// As KindAt, without a call of the system for most entries.
/// @param type what the listing of the directory says of the name: dirent's d_type
EntryKind KindOfEntry(int directory, const char* name, unsigned char type);

/// Whether an entry of the collection is a directory, or a link to one. An entry of unknown kind counts as no
/// directory, and the log says why.
bool IsDirectory(const std::string& path);

} // namespace SystemServer

#endif
