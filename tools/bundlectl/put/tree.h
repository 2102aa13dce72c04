#ifndef BUNDLECTL_PUT_TREE_H
#define BUNDLECTL_PUT_TREE_H

#include "common/unique_fd.h"
#include "put/contents.h"

#include <cstddef>
#include <string>

/// Files and directories that outlive a power cut: what these functions have made is on the disk when they return, but
/// for the directories' own entries, which SyncTree and SyncFile write out. All throw Refusal.
namespace Put {

/// A file that is written anew. It must not exist. Without Open it takes what is written and does nothing.
class NewFile {
public:
    void Open(const std::string& path, unsigned mode);
    void Write(const char* data, std::size_t size);
    /// Writes it out to the disk.
    void Finish();

private:
    Common::UniqueFd m_fd;
    std::string m_path;
};

void WriteNewFile(const std::string& path, const std::string& content, unsigned mode);
void MakeLink(const std::string& path, const std::string& target);
/// Its owner may write it until SetDirectoryModes.
void MakeDirectory(const std::string& path, unsigned mode);
void SetDirectoryModes(const std::string& root, const Contents& contents);

/// Copies what the list names. Each file is compared with its hash on the way.
void CopyTree(const std::string& from, const std::string& to, const Contents& contents);

/// Gives a new version what the items have written: all folders of the old one but "bin" and "script". Files are
/// linked, so that what is written to them in place reaches both versions. What was shipped with the old version and
/// has not changed since is left to the new one.
/// @param shipped the list of the old version; null when it has none
void CarryData(const std::string& from, const std::string& to, const Contents* shipped);

/// Removes a directory with all that is in it. One that does not exist is removed already.
void RemoveTree(const std::string& path);

/// Writes a file's or a directory's own content out.
void SyncFile(const std::string& path);
/// Writes out all directories of a tree, the innermost first.
void SyncTree(const std::string& path);

bool ExistsAt(const std::string& path);

} // namespace Put

#endif
