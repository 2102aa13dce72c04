#include "support/overlay.h"

#include "support/private_mnt.h"

#include <gtest/gtest.h>

#include <sys/mount.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>

namespace {

std::string MissingNamespace()
{
    static const std::string missing = EnterPrivateMnt(); // once in each process
    return missing;
}

bool Runs(const std::string& command)
{
    return std::system((command + " >/dev/null 2>&1").c_str()) == 0;
}

} // namespace

std::ostream& operator<<(std::ostream& stream, const OverlayKind& kind)
{
    return stream << kind.name;
}

OverlayRoot::OverlayRoot(const OverlayKind& kind) : m_kind(kind), m_missing(MissingNamespace())
{
    if (!m_missing.empty()) {
        return;
    }
    std::string name = "/mnt/overlay_XXXXXX";
    m_directory = ::mkdtemp(name.data());
    for (const char* const folder : {"/root", "/lower", "/writable"}) {
        std::filesystem::create_directory(m_directory + folder);
    }
    ::setenv("TMPDIR", (m_directory + "/root").c_str(), 1);
}

OverlayRoot::~OverlayRoot()
{
    ::unsetenv("TMPDIR");
    if (m_missing.empty()) {
        ::umount2((m_directory + "/root").c_str(), MNT_DETACH);
        ::umount2((m_directory + "/lower").c_str(), MNT_DETACH);
        ::umount2((m_directory + "/writable").c_str(), MNT_DETACH);
        std::error_code ignored;
        std::filesystem::remove_all(m_directory, ignored);
    }
}

std::string OverlayRoot::Mount()
{
    if (!m_missing.empty()) {
        return m_missing;
    }
    const std::string writable = m_directory + "/writable";
    if (::mount("tmpfs", writable.c_str(), "tmpfs", 0, nullptr) != 0) {
        return std::string("no tmpfs can be mounted: ") + std::strerror(errno);
    }
    for (const char* const folder : {"/upper", "/work", "/lower"}) {
        std::filesystem::create_directory(writable + folder);
    }
    std::string missing = MakeLowerLayer();
    if (!missing.empty()) {
        return missing;
    }
    const std::string lower = m_kind.lower == std::string("same") ? writable + "/lower" : m_directory + "/lower";
    const std::string options =
        "lowerdir=" + lower + ",upperdir=" + writable + "/upper,workdir=" + writable + "/work" + m_kind.options;
    if (::mount("overlay", (m_directory + "/root").c_str(), "overlay", 0, options.c_str()) != 0) {
        return "no overlay can be mounted (" + options + "): " + std::strerror(errno);
    }
    return {};
}

// Made from the current content of the root.
std::string OverlayRoot::MakeLowerLayer() const
{
    const std::string kind = m_kind.lower;
    const std::string root = m_directory + "/root";
    const std::string lower = m_directory + "/lower";
    const std::string image = m_directory + "/image";
    if (kind == "same") {
        return Runs("cp -a " + root + "/. " + m_directory + "/writable/lower/") ? "" : "the lower layer is not copied";
    }
    if (kind == "tmpfs") {
        const bool isMade =
            ::mount("tmpfs", lower.c_str(), "tmpfs", 0, nullptr) == 0 && Runs("cp -a " + root + "/. " + lower + "/");
        return isMade ? "" : "the lower layer is not copied to a tmpfs";
    }
    const std::string make = kind == "ext4" ? "PATH=$PATH:/sbin:/usr/sbin; truncate -s 16M " + image +
                                                  " && mkfs.ext4 -q -O ^has_journal -d " + root + " " + image
                                            : "mksquashfs " + root + " " + image;
    if (!Runs(make)) {
        return "no image of " + kind + " can be made";
    }
    return Runs("mount -o ro,loop " + image + " " + lower) ? "" : "no image of " + kind + " can be mounted";
}

void OverlayRoot::DropInodes() const
{
    // A remount drops the cached inodes.
    if (::mount(nullptr, (m_directory + "/root").c_str(), nullptr, MS_REMOUNT, nullptr) != 0) {
        ADD_FAILURE() << "the overlay is not mounted anew: " << std::strerror(errno);
    }
}

bool OverlayRoot::DropAllInodes()
{
    std::ofstream file("/proc/sys/vm/drop_caches");
    file << "2" << std::flush;
    return file.good();
}
