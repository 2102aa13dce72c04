#include "bundle_archive.h"

#include "common/unique_fd.h"
#include "hash.h"
#include "key.h"
#include "printable.h"
#include "tree.h"

#include <archive.h>
#include <archive_entry.h>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <memory>
#include <vector>

namespace Put {

namespace {

struct ArchiveEnd {
    void operator()(archive* writer) const { ::archive_write_free(writer); }
};

struct EntryEnd {
    void operator()(archive_entry* entry) const { ::archive_entry_free(entry); }
};

/// Writes an archive whose bytes depend only on the files: it has no times, no owners, no names of this machine.
class Writer {
public:
    /// @param hasPlainNames all names are ASCII. Other names are written as bytes, as in the file system, because
    /// otherwise their meaning depends on a locale. Each member then has a header about this, and tar prints a warning.
    Writer(const std::string& file, bool hasPlainNames) : m_file(file)
    {
        ::archive_write_set_format_pax_restricted(m_archive.get());
        ::archive_write_add_filter_gzip(m_archive.get());
        // Without the time and the name that a gzip header may have.
        Require(::archive_write_set_options(m_archive.get(), "gzip:!timestamp,gzip:compression-level=9"));
        if (!hasPlainNames) {
            Require(::archive_write_set_options(m_archive.get(), "pax:hdrcharset=BINARY"));
        }
        Require(::archive_write_open_filename(m_archive.get(), file.c_str()));
    }

    void AddText(const char* path, const std::string& text)
    {
        Entry entry;
        entry.path = path;
        entry.mode = 0644;
        entry.size = text.size();
        AddHead(entry);
        AddData(text.data(), text.size());
    }

    void AddFile(const std::string& directory, const Entry& entry);
    void AddHead(const Entry& entry);
    void Finish() { Require(::archive_write_close(m_archive.get())); }

private:
    void AddData(const char* data, std::size_t size)
    {
        if (size != 0 && ::archive_write_data(m_archive.get(), data, size) != static_cast<la_ssize_t>(size)) {
            Require(ARCHIVE_FATAL);
        }
    }

    void Require(int status)
    {
        if (status != ARCHIVE_OK) {
            const char* const why = ::archive_error_string(m_archive.get());
            throw Refusal(Printable(m_file) + " cannot be written: " + Printable(why == nullptr ? "" : why) + ".");
        }
    }

    const std::string m_file;
    const std::unique_ptr<archive, ArchiveEnd> m_archive{::archive_write_new()};
};

void Writer::AddHead(const Entry& entry)
{
    const std::unique_ptr<archive_entry, EntryEnd> head(::archive_entry_new());
    ::archive_entry_set_pathname(head.get(), entry.path.c_str());
    ::archive_entry_set_mtime(head.get(), 0, 0);
    ::archive_entry_set_uid(head.get(), 0);
    ::archive_entry_set_gid(head.get(), 0);
    switch (entry.kind) {
    case Entry::DIRECTORY:
        ::archive_entry_set_filetype(head.get(), AE_IFDIR);
        break;
    case Entry::LINK:
        ::archive_entry_set_filetype(head.get(), AE_IFLNK);
        ::archive_entry_set_symlink(head.get(), entry.target.c_str());
        break;
    case Entry::FILE:
        ::archive_entry_set_filetype(head.get(), AE_IFREG);
        ::archive_entry_set_size(head.get(), static_cast<la_int64_t>(entry.size));
        break;
    }
    ::archive_entry_set_perm(head.get(), entry.kind == Entry::LINK ? 0777 : entry.mode);
    Require(::archive_write_header(m_archive.get(), head.get()));
}

void Writer::AddFile(const std::string& directory, const Entry& entry)
{
    const std::string path = directory + "/" + entry.path;
    AddHead(entry);
    const Common::UniqueFd fd(::open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NOFOLLOW));
    Hash hash;
    std::vector<char> buffer(std::size_t{64} * 1024);
    for (std::uint64_t left = entry.size; left > 0;) {
        const auto most = static_cast<std::size_t>(std::min<std::uint64_t>(buffer.size(), left));
        const ssize_t size = ::read(fd.Get(), buffer.data(), most);
        if (size <= 0) {
            break;
        }
        hash.Add(buffer.data(), static_cast<std::size_t>(size));
        AddData(buffer.data(), static_cast<std::size_t>(size));
        left -= static_cast<std::uint64_t>(size);
    }
    if (hash.Finish() != entry.hash) {
        throw Refusal(Printable(path) + " has changed while it was packed. Pack it again.");
    }
}

/// The name of an incomplete file. The destructor removes the file unless it was completed.
class UnfinishedFile {
public:
    explicit UnfinishedFile(std::string path) : m_path(std::move(path)) {}
    UnfinishedFile(const UnfinishedFile&) = delete;
    UnfinishedFile& operator=(const UnfinishedFile&) = delete;
    ~UnfinishedFile()
    {
        if (!m_path.empty()) {
            ::unlink(m_path.c_str());
        }
    }

    const std::string& Path() const { return m_path; }

    void MoveTo(const std::string& file)
    {
        SyncFile(m_path);
        if (std::rename(m_path.c_str(), file.c_str()) != 0) {
            throw Refusal(Printable(file) + " cannot be written: " + std::strerror(errno) + ".");
        }
        m_path.clear();
    }

private:
    std::string m_path;
};

} // namespace

Shipped Pack(const std::string& directory, const std::string& file, const std::string& keyFile)
{
    Shipped shipped;
    shipped.contents = ReadContents(directory);
    shipped.text = shipped.contents.Text();
    if (!keyFile.empty()) {
        shipped.signature = Sign(shipped.text, keyFile);
    }
    UnfinishedFile unfinished(file + ".part");
    const bool isPlain = std::all_of(shipped.text.begin(), shipped.text.end(), [](char c) { return (c & 0x80) == 0; });
    Writer writer(unfinished.Path(), isPlain);
    writer.AddText(CONTENTS_FILE, shipped.text);
    if (!shipped.signature.empty()) {
        writer.AddText(SIGNATURE_FILE, shipped.signature);
    }
    for (const Entry& entry : shipped.contents.entries) {
        if (entry.kind == Entry::FILE) {
            writer.AddFile(directory, entry);
        } else {
            writer.AddHead(entry);
        }
    }
    writer.Finish();
    unfinished.MoveTo(file);
    return shipped;
}

} // namespace Put
