#ifndef ENTRY_KIND_H
#define ENTRY_KIND_H

namespace SystemServer {

/// What a name in a directory stands for. A link counts as what it leads to; one that leads nowhere is there all the
/// same, but no directory. A failing disk or an absent server leaves it unknown, which is no reason to stop a bundle.
enum class EntryKind { ABSENT, DIRECTORY, OTHER, UNKNOWN };

/// @param directory a descriptor, or AT_FDCWD
EntryKind KindAt(int directory, const char* path);

/// @param type what the listing of the directory says of the name
EntryKind KindOfEntry(int directory, const char* name, unsigned char type);

} // namespace SystemServer

#endif
