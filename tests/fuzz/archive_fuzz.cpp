// The input is an archive of a bundle. It is taken or refused, never half taken: what is refused says so by a Refusal,
// nothing is written outside of the directory, and what is taken is exactly what the list of contents says. Packed
// again, it gives the same list.
//
// The first byte says how the rest is read:
//   r  the archive's bytes, as they are
//   t  a tar archive whose headers get their checksums here, so that changed headers are read as well
//   s  the script of an archive: lines of the list of contents, an empty line, lines of members. See Script.
#include "fuzz/fuzz_target.h"

#include "put/bundle_archive.h"
#include "put/hash.h"
#include "support/collection_builder.h"
#include "support/temporary_directory.h"

#include <archive.h>
#include <archive_entry.h>

#include <sys/stat.h>

#include <algorithm>
#include <array>
#include <charconv>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace fs = std::filesystem;

// The linker sends the calls of fsync here. The disk is not what is tested, and waiting for it takes most of the time.
int WrappedSync(int fd) __asm__("__wrap_fsync");

int WrappedSync(int)
{
    return 0;
}

namespace {

constexpr Put::ArchiveLimits LIMITS{std::uint64_t{1024} * 1024};

std::vector<std::string> Split(const std::string& text, char separator)
{
    std::vector<std::string> parts;
    for (std::size_t begin = 0; begin <= text.size();) {
        const std::size_t end = std::min(text.find(separator, begin), text.size());
        parts.push_back(text.substr(begin, end - begin));
        begin = end + 1;
    }
    return parts;
}

struct Member {
    char kind = 'f';
    unsigned mode = 0;
    std::string path;
    std::string target;
    std::string data;
};

/// An archive as text, which a fuzzer can change and a person can read. A line of the list is "kind TAB mode TAB size
/// TAB hash TAB path"; "=" as size or hash is that of the member of the same path. A member is "kind TAB mode TAB path
/// TAB target TAB data"; the kinds are those of the list and h (hard link), c, b (devices) and p (FIFO).
class Script {
public:
    explicit Script(const std::string& text)
    {
        bool isList = true;
        for (const std::string& line : Split(text, '\n')) {
            if (isList && line.empty()) {
                isList = false;
            } else if (isList) {
                m_list.push_back(line);
            } else {
                AddMember(line);
            }
        }
    }

    void Write(const std::string& file) const
    {
        const std::unique_ptr<archive, decltype(&::archive_write_free)> writer(::archive_write_new(),
                                                                               &::archive_write_free);
        ::archive_write_set_format_pax_restricted(writer.get());
        Require(::archive_write_open_filename(writer.get(), file.c_str()) == ARCHIVE_OK, "no archive can be made");
        Write(writer.get(), {'f', 0644, Put::CONTENTS_FILE, "", List()});
        for (const Member& member : m_members) {
            Write(writer.get(), member);
        }
    }

private:
    void AddMember(const std::string& line)
    {
        std::vector<std::string> fields = Split(line, '\t');
        fields.resize(5);
        Member member;
        member.kind = fields[0].empty() ? 'f' : fields[0][0];
        std::from_chars(fields[1].data(), fields[1].data() + fields[1].size(), member.mode, 8);
        member.path = fields[2];
        member.target = fields[3];
        member.data = fields[4];
        m_members.push_back(member);
    }

    std::string List() const
    {
        std::string text = "bundle-contents 1\n";
        for (const std::string& line : m_list) {
            std::vector<std::string> fields = Split(line, '\t');
            const auto member = std::find_if(m_members.begin(), m_members.end(), [&fields](const Member& one) {
                return fields.size() == 5 && one.path == fields[4];
            });
            if (member != m_members.end()) {
                Put::Hash hash;
                hash.Add(member->data.data(), member->data.size());
                fields[2] = fields[2] == "=" ? std::to_string(member->data.size()) : fields[2];
                fields[3] = fields[3] == "=" ? hash.Finish() : fields[3];
            }
            for (const std::string& field : fields) {
                text += (&field == &fields.front() ? "" : "\t") + field;
            }
            text += "\n";
        }
        return text;
    }

    static void Write(archive* writer, const Member& member)
    {
        constexpr std::string_view kinds = "fdlcbp";
        constexpr std::array<unsigned, 6> types{AE_IFREG, AE_IFDIR, AE_IFLNK, AE_IFCHR, AE_IFBLK, AE_IFIFO};
        const std::unique_ptr<archive_entry, decltype(&::archive_entry_free)> entry(::archive_entry_new(),
                                                                                    &::archive_entry_free);
        const std::size_t kind = std::min(kinds.find(member.kind), kinds.size());
        ::archive_entry_set_filetype(entry.get(), kind == kinds.size() ? AE_IFREG : types[kind]);
        ::archive_entry_set_perm(entry.get(), member.mode & 07777U);
        ::archive_entry_set_pathname(entry.get(), member.path.c_str());
        if (member.kind == 'l') {
            ::archive_entry_set_symlink(entry.get(), member.target.c_str());
        } else if (member.kind == 'h') {
            ::archive_entry_set_hardlink(entry.get(), member.target.c_str());
        }
        ::archive_entry_set_size(entry.get(), static_cast<la_int64_t>(member.data.size()));
        // What the library does not write, such as a member without a name, is left out.
        if (::archive_write_header(writer, entry.get()) >= ARCHIVE_WARN) {
            ::archive_write_data(writer, member.data.data(), member.data.size());
        }
    }

    std::vector<std::string> m_list;
    std::vector<Member> m_members;
};

/// Gives each header of a tar archive the checksum that its bytes have.
std::string WithChecksums(std::string tar)
{
    constexpr std::size_t block = 512;
    constexpr std::size_t sumAt = 148;
    constexpr std::size_t sumSize = 8;
    constexpr std::size_t sizeAt = 124;
    for (std::size_t at = 0; at + block <= tar.size();) {
        std::fill_n(tar.begin() + static_cast<std::ptrdiff_t>(at + sumAt), sumSize, ' ');
        unsigned sum = 0;
        for (std::size_t i = 0; i < block; ++i) {
            sum += static_cast<unsigned char>(tar[at + i]);
        }
        if (sum == sumSize * ' ') {
            std::fill_n(tar.begin() + static_cast<std::ptrdiff_t>(at + sumAt), sumSize, '\0');
            return tar; // a block of zeros ends the archive
        }
        std::array<char, sumSize + 1> text{};
        static_cast<void>(std::snprintf(text.data(), text.size(), "%06o", sum));
        std::copy_n(text.data(), sumSize, tar.begin() + static_cast<std::ptrdiff_t>(at + sumAt));
        std::size_t size = 0;
        std::from_chars(tar.data() + at + sizeAt, tar.data() + at + sizeAt + 11, size, 8);
        at += block + std::min(size, tar.size()) / block * block + (size % block == 0 ? 0 : block);
    }
    return tar;
}

void WriteArchive(const std::string& input, const std::string& file)
{
    const std::string rest = input.substr(std::min<std::size_t>(1, input.size()));
    switch (input.empty() ? 'r' : input.front()) {
    case 's':
        Script(rest).Write(file);
        return;
    case 't':
        WriteFile(file, WithChecksums(rest));
        return;
    default:
        WriteFile(file, rest);
    }
}

/// The list of an archive that is taken; empty when it is refused. Any exception but a Refusal leaves the target, which
/// is a finding.
template <class Read> std::optional<std::string> ListOf(const Read& read)
{
    try {
        return read().text;
    } catch (const Put::Refusal&) {
        return std::nullopt;
    }
}

void RequireHarmless(const fs::path& directory)
{
    for (const auto& entry : fs::recursive_directory_iterator(directory)) {
        struct stat status {};
        Require(::lstat(entry.path().c_str(), &status) == 0, "a file has gone");
        const bool isOrdinary = S_ISREG(status.st_mode) || S_ISDIR(status.st_mode) || S_ISLNK(status.st_mode);
        Require(isOrdinary, "a device, a FIFO or a socket has been made");
        Require(S_ISLNK(status.st_mode) || (status.st_mode & 07000U) == 0, "a file is setuid, setgid or sticky");
        Require(!S_ISREG(status.st_mode) || status.st_nlink == 1, "a file is a hard link");
        if (S_ISLNK(status.st_mode)) {
            const fs::path target = entry.path().parent_path() / fs::read_symlink(entry.path());
            const std::string way = target.lexically_normal().lexically_relative(directory).string();
            Require(!way.empty() && way.compare(0, 2, "..") != 0, "a link leads out of the bundle");
        }
    }
}

std::size_t CountIn(const fs::path& directory)
{
    return static_cast<std::size_t>(std::distance(fs::directory_iterator(directory), fs::directory_iterator()));
}

} // namespace

int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size)
{
    // Two directories deep, so that what leads out leads to where it is seen.
    const TemporaryDirectory place;
    const fs::path middle = place.Path() / "middle";
    const fs::path bundle = middle / "bundle";
    fs::create_directories(bundle);
    const std::string file = place / "archive";
    WriteArchive(std::string(data, data + size), file);

    const auto checked = ListOf([&] { return Put::CheckArchive(file, LIMITS); });
    Require(fs::is_empty(bundle), "an archive that is only looked at is unpacked");
    const auto unpacked = ListOf([&] { return Put::Unpack(file, bundle.string(), LIMITS); });
    Require(CountIn(middle) == 1 && CountIn(place.Path()) == 2, "something is written outside of the directory");
    RequireHarmless(bundle);
    Require(checked == unpacked || (checked && !unpacked && ::geteuid() != 0), "verify takes what put refuses");
    if (!unpacked) {
        return 0;
    }
    Require(Put::Differences(bundle.string(), Put::ParseContents(*unpacked)).empty(), "the files are not as listed");
    const std::string again = place / "again";
    Require(ListOf([&] { return Put::Pack(bundle.string(), again, ""); }) == unpacked, "packed again it differs");
    Require(ListOf([&] { return Put::CheckArchive(again, LIMITS); }) == unpacked, "what was packed is refused");
    return 0;
}
