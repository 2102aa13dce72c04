#ifndef BUNDLECTL_PUT_TREE_H
#define BUNDLECTL_PUT_TREE_H

#include "common/unique_fd.h"
#include "put/contents.h"

#include <cstddef>
#include <string>

/// Files and directories that survive a power cut. When these functions return, their results are on the disk, except
/// for the directories' own entries, which SyncTree and SyncFile write out. All throw Refusal.
namespace Put {

/// A new file. It must not exist. Without Open, writes have no effect.
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
/// The owner may write to the directory until SetDirectoryModes.
void MakeDirectory(const std::string& path, unsigned mode);
void SetDirectoryModes(const std::string& root, const Contents& contents);

/// Copies the files of the list. Compares each file with its hash while copying.
void CopyTree(const std::string& from, const std::string& to, const Contents& contents);

/// Gives a new version the files that the items have written: all folders of the old version except "bin" and "script".
/// Files are linked, so writes in place reach both versions. For files that were shipped with the old version and have
/// not changed since, the new version's own files are used.
/// @param shipped the list of the old version; null when it has none
void CarryData(const std::string& from, const std::string& to, const Contents* shipped);

/// Removes a directory with its content. Succeeds if the directory does not exist.
void RemoveTree(const std::string& path);

/// Writes a file's or a directory's own content out.
void SyncFile(const std::string& path);
/// Writes out all directories of a tree, the innermost first.
void SyncTree(const std::string& path);

bool ExistsAt(const std::string& path);

} // namespace Put

#endif
