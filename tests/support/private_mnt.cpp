#include "support/private_mnt.h"

#include <fcntl.h>
#include <sched.h>
#include <sys/mount.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

namespace {

std::string Failure(const std::string& what)
{
    return what + ": " + std::strerror(errno);
}

bool WriteFile(const char* path, const std::string& text)
{
    const int fd = ::open(path, O_WRONLY | O_CLOEXEC);
    if (fd < 0) {
        return false;
    }
    const bool written = ::write(fd, text.data(), text.size()) == static_cast<ssize_t>(text.size());
    ::close(fd);
    return written;
}

std::string IdentityMap(unsigned id)
{
    return std::to_string(id) + ' ' + std::to_string(id) + " 1";
}

/// Gives the process all rights in a user namespace of its own. The user id stays the same.
std::string EnterUserNamespace()
{
    const unsigned user = ::geteuid();
    const unsigned group = ::getegid();
    if (::unshare(CLONE_NEWUSER) != 0) {
        return Failure("not root, and a user namespace is unavailable (unshare(CLONE_NEWUSER))");
    }
    // The kernel accepts a group map only from a process that can no longer drop groups.
    if (!WriteFile("/proc/self/setgroups", "deny") || !WriteFile("/proc/self/uid_map", IdentityMap(user)) ||
        !WriteFile("/proc/self/gid_map", IdentityMap(group))) {
        return Failure("the user namespace's maps cannot be written");
    }
    return {};
}

} // namespace

std::string EnterPrivateMnt()
{
    if (::geteuid() != 0) {
        std::string reason = EnterUserNamespace();
        if (!reason.empty()) {
            return reason;
        }
    }
    if (::unshare(CLONE_NEWNS) != 0) {
        return Failure("a mount namespace is unavailable (unshare(CLONE_NEWNS))");
    }
    if (::mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0) {
        return Failure("the mounts cannot be made private");
    }
    if (::mount("tmpfs", "/mnt", "tmpfs", MS_NOSUID | MS_NODEV, "mode=0755") != 0) {
        return Failure("no tmpfs can be mounted on /mnt");
    }
    return {};
}

void PrivateMnt::SetUp()
{
    const std::string reason = EnterPrivateMnt();
    if (!reason.empty()) {
        FAIL() << "These tests need a private /mnt: " << reason;
    }
}
