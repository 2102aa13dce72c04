#include "bundle_archive.h"

#include "common/unique_fd.h"
#include "hash.h"
#include "printable.h"
#include "tree.h"

#include <archive.h>
#include <archive_entry.h>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <memory>
#include <vector>

namespace Put {

namespace {

struct ArchiveEnd {
    void operator()(archive* reader) const { ::archive_read_free(reader); }
};

/// Why the library has failed. It does not always give a reason.
std::string ErrorOf(archive* reader)
{
    const char* const text = ::archive_error_string(reader);
    return text == nullptr ? "the archive is damaged" : Printable(text);
}

/// Reads an archive's members one after the other, in the order of the list at its beginning. Refuses everything that
/// differs from the list, so it does not need to handle other features of archives.
class Reader {
public:
    /// @param directory empty: writes nothing
    Reader(const std::string& file, std::string directory, const ArchiveLimits& limits);

    Shipped Read();

private:
    archive_entry* Next();
    std::string PathOf(archive_entry* member) const;
    std::string ReadText(archive_entry* member, std::size_t most);
    void Take(archive_entry* member, const Entry& entry);
    void RequireSame(archive_entry* member, const Entry& entry) const;
    void TakeFile(const Entry& entry);
    template <class Use> std::uint64_t ReadData(std::uint64_t most, const Use& use);
    [[noreturn]] void Refuse(const std::string& text) const { throw Refusal(Printable(m_file) + ": " + text); }

    const std::string m_file;
    const std::string m_directory;
    const ArchiveLimits m_limits;
    const std::unique_ptr<archive, ArchiveEnd> m_archive{::archive_read_new()};
};

Reader::Reader(const std::string& file, std::string directory, const ArchiveLimits& limits)
    : m_file(file), m_directory(std::move(directory)), m_limits(limits)
{
    constexpr std::size_t block = std::size_t{64} * 1024;
    ::archive_read_support_format_tar(m_archive.get());
    ::archive_read_support_filter_gzip(m_archive.get());
    if (::archive_read_open_filename(m_archive.get(), file.c_str(), block) != ARCHIVE_OK) {
        Refuse("it cannot be read as an archive: " + ErrorOf(m_archive.get()) + ".");
    }
}

Shipped Reader::Read()
{
    constexpr std::size_t longestSignature = 4096;
    Shipped shipped;
    archive_entry* member = Next();
    if (member == nullptr || PathOf(member) != CONTENTS_FILE) {
        Refuse("it begins with no list of its contents. bundlectl pack makes archives that do.");
    }
    shipped.text = ReadText(member, Contents::LONGEST_TEXT);
    shipped.contents = ParseContents(shipped.text);
    if (shipped.contents.Size() > m_limits.size) {
        Refuse("its files have " + std::to_string(shipped.contents.Size()) + " bytes, more than " +
               std::to_string(m_limits.size) + ".");
    }
    member = Next();
    if (member != nullptr && PathOf(member) == SIGNATURE_FILE) {
        shipped.signature = ReadText(member, longestSignature);
        member = Next();
    }
    for (const Entry& entry : shipped.contents.entries) {
        if (member == nullptr) {
            Refuse("\"" + Printable(entry.path) + "\" is missing in it.");
        }
        Take(member, entry);
        member = Next();
    }
    if (member != nullptr) {
        Refuse("\"" + Printable(PathOf(member)) + "\" is not in the list of its contents.");
    }
    return shipped;
}

archive_entry* Reader::Next()
{
    archive_entry* member = nullptr;
    switch (::archive_read_next_header(m_archive.get(), &member)) {
    case ARCHIVE_OK:
        return member;
    case ARCHIVE_EOF:
        return nullptr;
    default:
        Refuse("it is broken or cut off: " + ErrorOf(m_archive.get()) + ".");
    }
}

std::string Reader::PathOf(archive_entry* member) const
{
    const char* const path = ::archive_entry_pathname(member);
    if (path == nullptr) {
        Refuse("it has a file without a name.");
    }
    std::string text = path;
    if (::archive_entry_filetype(member) == AE_IFDIR && !text.empty() && text.back() == '/') {
        text.pop_back();
    }
    return text;
}

template <class Use> std::uint64_t Reader::ReadData(std::uint64_t most, const Use& use)
{
    std::uint64_t size = 0;
    std::vector<char> buffer(std::size_t{64} * 1024);
    for (;;) {
        const la_ssize_t got = ::archive_read_data(m_archive.get(), buffer.data(), buffer.size());
        if (got < 0) {
            Refuse("it is broken or cut off: " + ErrorOf(m_archive.get()) + ".");
        }
        if (got == 0) {
            return size;
        }
        size += static_cast<std::uint64_t>(got);
        if (size > most) {
            Refuse("a file in it is longer than the list of its contents says.");
        }
        use(buffer.data(), static_cast<std::size_t>(got));
    }
}

std::string Reader::ReadText(archive_entry* member, std::size_t most)
{
    if (::archive_entry_filetype(member) != AE_IFREG || ::archive_entry_hardlink(member) != nullptr) {
        Refuse("the list of its contents is no file.");
    }
    std::string text;
    ReadData(most, [&text](const char* data, std::size_t size) { text.append(data, size); });
    if (!m_directory.empty()) {
        WriteNewFile(m_directory + "/" + PathOf(member), text, 0644);
    }
    return text;
}

void Reader::RequireSame(archive_entry* member, const Entry& entry) const
{
    const std::string path = PathOf(member);
    if (path != entry.path) {
        Refuse("\"" + Printable(path) + "\" stands where the list of its contents has \"" + Printable(entry.path) +
               "\".");
    }
    const auto type = ::archive_entry_filetype(member);
    const auto wanted = entry.kind == Entry::DIRECTORY ? AE_IFDIR : entry.kind == Entry::LINK ? AE_IFLNK : AE_IFREG;
    const char* const target = ::archive_entry_symlink(member);
    const bool isSameLink = entry.kind != Entry::LINK || (target != nullptr && target == entry.target);
    if (type != wanted || ::archive_entry_hardlink(member) != nullptr || !isSameLink) {
        Refuse("\"" + Printable(path) + "\" is of another kind than the list of its contents says.");
    }
    constexpr unsigned bits = 07777;
    if (entry.kind != Entry::LINK && (::archive_entry_mode(member) & bits) != entry.mode) {
        Refuse("\"" + Printable(path) + "\" has other permissions than the list of its contents says.");
    }
}

void Reader::Take(archive_entry* member, const Entry& entry)
{
    RequireSame(member, entry);
    const std::string path = m_directory + "/" + entry.path;
    if (entry.kind == Entry::FILE) {
        TakeFile(entry);
    } else if (m_directory.empty()) {
        return;
    } else if (entry.kind == Entry::LINK) {
        MakeLink(path, entry.target);
    } else {
        MakeDirectory(path, entry.mode);
    }
}

void Reader::TakeFile(const Entry& entry)
{
    NewFile file;
    if (!m_directory.empty()) {
        file.Open(m_directory + "/" + entry.path, entry.mode);
    }
    Hash hash;
    const std::uint64_t size = ReadData(entry.size, [&](const char* data, std::size_t piece) {
        hash.Add(data, piece);
        file.Write(data, piece);
    });
    if (size != entry.size || hash.Finish() != entry.hash) {
        Refuse("\"" + Printable(entry.path) + "\" differs from what the list of its contents says.");
    }
    file.Finish();
}

} // namespace

Shipped CheckArchive(const std::string& file, const ArchiveLimits& limits)
{
    return Reader(file, "", limits).Read();
}

Shipped Unpack(const std::string& file, const std::string& directory, const ArchiveLimits& limits)
{
    Shipped shipped = Reader(file, directory, limits).Read();
    SetDirectoryModes(directory, shipped.contents);
    return shipped;
}

} // namespace Put
