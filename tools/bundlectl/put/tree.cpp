#include "tree.h"

#include "hash.h"
#include "model/files.h"
#include "printable.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <vector>

namespace Put {

namespace {

[[noreturn]] void Fail(const std::string& path, const char* what)
{
    const int error = errno;
    throw Refusal(Printable(path) + " cannot be " + what + ": " + std::strerror(error) + ".");
}

struct stat StatusOf(const std::string& path)
{
    struct stat status {};
    if (::lstat(path.c_str(), &status) != 0) {
        Fail(path, "looked at");
    }
    return status;
}

std::vector<std::string> NamesIn(const std::string& path)
{
    auto names = Model::ListDirectory(path);
    if (!names) {
        Fail(path, "read");
    }
    return *names;
}

void CopyFile(const std::string& from, const std::string& to, const Entry& entry)
{
    const Common::UniqueFd fd(::open(from.c_str(), O_RDONLY | O_CLOEXEC | O_NOFOLLOW));
    NewFile file;
    Hash hash;
    std::vector<char> buffer(std::size_t{64} * 1024);
    file.Open(to, entry.mode);
    for (;;) {
        const ssize_t size = ::read(fd.Get(), buffer.data(), buffer.size());
        if (size < 0 && errno != EINTR) {
            Fail(from, "read");
        }
        if (size == 0) {
            break;
        }
        if (size > 0) {
            hash.Add(buffer.data(), static_cast<std::size_t>(size));
            file.Write(buffer.data(), static_cast<std::size_t>(size));
        }
    }
    if (hash.Finish() != entry.hash) {
        throw Refusal(Printable(from) + " has changed while it was copied. Try again.");
    }
    file.Finish();
}

/// Whether the old version's file is still as shipped.
bool IsUnchanged(const std::string& file, const std::string& path, const Contents* shipped)
{
    const Entry* const entry = shipped == nullptr ? nullptr : shipped->Find(path);
    return entry != nullptr && entry->kind == Entry::FILE && HashFile(file).hash == entry->hash;
}

class Carrier {
public:
    Carrier(std::string from, std::string to, const Contents* shipped)
        : m_from(std::move(from)), m_to(std::move(to)), m_shipped(shipped)
    {}

    void Carry(const std::string& path);

private:
    void CarryDirectory(const std::string& path, const struct stat& status);
    void CarryFile(const std::string& path, const struct stat& status);

    const std::string m_from;
    const std::string m_to;
    const Contents* const m_shipped;
};

void Carrier::Carry(const std::string& path)
{
    struct stat status {};
    if (::lstat((m_from + "/" + path).c_str(), &status) != 0) {
        return; // the items keep running while files are carried over
    }
    if (S_ISDIR(status.st_mode)) {
        CarryDirectory(path, status);
    } else if (S_ISREG(status.st_mode)) {
        CarryFile(path, status);
    } else if (S_ISLNK(status.st_mode) && !ExistsAt(m_to + "/" + path)) {
        MakeLink(m_to + "/" + path, Model::ReadLink(m_from + "/" + path).value_or("."));
    } // items make their sockets and FIFOs again
}

void Carrier::CarryDirectory(const std::string& path, const struct stat& status)
{
    const std::string to = m_to + "/" + path;
    if (!ExistsAt(to)) {
        MakeDirectory(to, status.st_mode);
    }
    if (!S_ISDIR(StatusOf(to).st_mode)) {
        return; // the folder is not a folder in the new version
    }
    for (const std::string& name : Model::ListDirectory(m_from + "/" + path).value_or(std::vector<std::string>())) {
        Carry(path + "/" + name);
    }
    constexpr mode_t bits = 07777;
    if (::chmod(to.c_str(), status.st_mode & bits) != 0 ||
        (::geteuid() == 0 && ::chown(to.c_str(), status.st_uid, status.st_gid) != 0)) {
        Fail(to, "given to its owner");
    }
}

void Carrier::CarryFile(const std::string& path, const struct stat& status)
{
    const std::string from = m_from + "/" + path;
    const std::string to = m_to + "/" + path;
    if (ExistsAt(to)) {
        if (S_ISDIR(StatusOf(to).st_mode) || IsUnchanged(from, path, m_shipped)) {
            return;
        }
        if (::unlink(to.c_str()) != 0) {
            Fail(to, "replaced");
        }
    }
    if (::link(from.c_str(), to.c_str()) != 0 && errno != ENOENT) {
        Fail(to, "linked");
    }
    static_cast<void>(status);
}

} // namespace

void NewFile::Open(const std::string& path, unsigned mode)
{
    m_path = path;
    m_fd = Common::UniqueFd(::open(path.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC | O_NOFOLLOW, 0600));
    if (!m_fd.IsOpen() || ::fchmod(m_fd.Get(), mode) != 0) {
        Fail(path, "made");
    }
}

void NewFile::Write(const char* data, std::size_t size)
{
    while (m_fd.IsOpen() && size > 0) {
        const ssize_t written = ::write(m_fd.Get(), data, size);
        if (written < 0 && errno != EINTR) {
            Fail(m_path, "written");
        }
        data += written > 0 ? written : 0;
        size -= written > 0 ? static_cast<std::size_t>(written) : 0;
    }
}

void NewFile::Finish()
{
    if (m_fd.IsOpen() && ::fsync(m_fd.Get()) != 0) {
        Fail(m_path, "written out");
    }
    m_fd = Common::UniqueFd();
}

void WriteNewFile(const std::string& path, const std::string& content, unsigned mode)
{
    NewFile file;
    file.Open(path, mode);
    file.Write(content.data(), content.size());
    file.Finish();
}

void MakeLink(const std::string& path, const std::string& target)
{
    if (::symlink(target.c_str(), path.c_str()) != 0) {
        Fail(path, "made");
    }
}

void MakeDirectory(const std::string& path, unsigned mode)
{
    constexpr unsigned owner = 0700;
    constexpr unsigned bits = 0777;
    if (::mkdir(path.c_str(), 0700) != 0 || ::chmod(path.c_str(), (mode & bits) | owner) != 0) {
        Fail(path, "made");
    }
}

void SetDirectoryModes(const std::string& root, const Contents& contents)
{
    for (auto entry = contents.entries.rbegin(); entry != contents.entries.rend(); ++entry) {
        const std::string path = root + "/" + entry->path;
        if (entry->kind == Entry::DIRECTORY && ::chmod(path.c_str(), entry->mode) != 0) {
            Fail(path, "given its permissions");
        }
    }
}

void CopyTree(const std::string& from, const std::string& to, const Contents& contents)
{
    for (const Entry& entry : contents.entries) {
        const std::string path = to + "/" + entry.path;
        switch (entry.kind) {
        case Entry::DIRECTORY:
            MakeDirectory(path, entry.mode);
            break;
        case Entry::LINK:
            MakeLink(path, entry.target);
            break;
        case Entry::FILE:
            CopyFile(from + "/" + entry.path, path, entry);
            break;
        }
    }
    SetDirectoryModes(to, contents);
}

void CarryData(const std::string& from, const std::string& to, const Contents* shipped)
{
    Carrier carrier(from, to, shipped);
    for (const std::string& name : NamesIn(from)) {
        struct stat status {};
        const bool isFolder = ::lstat((from + "/" + name).c_str(), &status) == 0 && S_ISDIR(status.st_mode);
        if (isFolder && name != "bin" && name != "script") {
            carrier.Carry(name);
        }
    }
}

void RemoveTree(const std::string& path)
{
    struct stat status {};
    if (::lstat(path.c_str(), &status) != 0) {
        if (errno != ENOENT) {
            Fail(path, "looked at");
        }
        return;
    }
    if (S_ISDIR(status.st_mode)) {
        ::chmod(path.c_str(), 0700);
        for (const std::string& name : NamesIn(path)) {
            RemoveTree(path + "/" + name);
        }
    }
    if (std::remove(path.c_str()) != 0 && errno != ENOENT) {
        Fail(path, "removed");
    }
}

void SyncFile(const std::string& path)
{
    const Common::UniqueFd fd(::open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NOFOLLOW | O_NONBLOCK));
    if (!fd.IsOpen() || ::fsync(fd.Get()) != 0) {
        Fail(path, "written out");
    }
}

void SyncTree(const std::string& path)
{
    for (const std::string& name : NamesIn(path)) {
        if (S_ISDIR(StatusOf(path + "/" + name).st_mode)) {
            SyncTree(path + "/" + name);
        }
    }
    SyncFile(path);
}

bool ExistsAt(const std::string& path)
{
    struct stat status {};
    return ::lstat(path.c_str(), &status) == 0;
}

} // namespace Put
