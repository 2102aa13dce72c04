#include "store.h"

#include "model/files.h"
#include "output/times.h"
#include "printable.h"
#include "tree.h"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <charconv>
#include <cstring>
#include <ctime>
#include <sstream>
#include <thread>

namespace Put {

namespace {

constexpr const char PART[] = "/part"; // a version that is being made
constexpr const char NEXT[] = "/next"; // a complete version; after its installation, the version that it has replaced
constexpr unsigned EXCHANGE = 2;       // the kernel's RENAME_EXCHANGE
constexpr unsigned NO_REPLACE = 1;     // the kernel's RENAME_NOREPLACE

[[noreturn]] void Fail(const std::string& text)
{
    const int error = errno;
    const bool isForbidden = error == EACCES || error == EPERM;
    throw Refusal(text + ": " + std::strerror(error) + "." +
                  (isForbidden ? " Run it as root, or as the user to whom the collection belongs." : ""));
}

void Rename(const std::string& from, const std::string& to, unsigned flags)
{
    // The system call itself: C libraries before 2.28 have no function for it.
    if (::syscall(SYS_renameat2, AT_FDCWD, from.c_str(), AT_FDCWD, to.c_str(), flags) == 0) {
        return;
    }
    const int error = errno;
    if (error == EXDEV || error == EINVAL || error == ENOSYS) {
        throw Refusal(Printable(to) + " cannot be exchanged in one step here (" + std::strerror(error) +
                      "). An overlay does not exchange a directory of its lower layer: copy the bundle within the "
                      "collection first, or mount the overlay with redirect_dir=on.");
    }
    errno = error;
    Fail(Printable(to) + " cannot be put in place");
}

void EnsureDirectory(const std::string& path)
{
    if (::mkdir(path.c_str(), 0700) != 0 && errno != EEXIST) {
        Fail(Printable(path) + " cannot be made");
    }
    struct stat status {};
    if (::lstat(path.c_str(), &status) != 0 || !S_ISDIR(status.st_mode)) {
        throw Refusal(Printable(path) + " is no directory. Move it away.");
    }
}

dev_t DeviceOf(const std::string& path)
{
    struct stat status {};
    if (::stat(path.c_str(), &status) != 0) {
        Fail(Printable(path));
    }
    return status.st_dev;
}

Version ReadVersion(const std::string& path)
{
    constexpr std::size_t most = 4096;
    Version version;
    version.path = path;
    std::istringstream lines(Model::ReadFileAtMost(path + "/" + VERSION_FILE, most).value_or(""));
    for (std::string line; std::getline(lines, line);) {
        const std::size_t end = std::min(line.find(' '), line.size());
        const std::string key = line.substr(0, end);
        const std::string value = line.substr(std::min(end + 1, line.size()));
        if (key == "number") {
            std::from_chars(value.data(), value.data() + value.size(), version.number);
        } else if (key == "installed") {
            version.installed = Printable(value);
        } else if (key == "from") {
            version.from = Printable(value);
        }
    }
    return version;
}

void WriteVersion(const std::string& path, int number, const std::string& from)
{
    std::string text = "number " + std::to_string(number) + "\n";
    if (!from.empty()) {
        text += "installed " + Output::Rfc3339(Model::Now()) + "\nfrom " + Printable(from) + "\n";
    }
    // In one step: a version has its complete file or none.
    const std::string file = path + "/" + VERSION_FILE;
    RemoveTree(file + ".part");
    WriteNewFile(file + ".part", text, 0644);
    Rename(file + ".part", file, 0);
}

/// The number that is the name of a stored directory; 0: any other name.
int NumberIn(const std::string& name)
{
    int number = 0;
    const auto [end, error] = std::from_chars(name.data(), name.data() + name.size(), number);
    return error == std::errc() && end == name.data() + name.size() ? number : 0;
}

} // namespace

Store::Store(const std::string& collection, Access access) : m_access(access), m_collection(Model::RealPath(collection))
{
    struct stat status {};
    if (::stat(m_collection.c_str(), &status) != 0 || !S_ISDIR(status.st_mode) || m_collection.front() != '/') {
        throw Refusal("the collection " + Printable(collection) + " is no directory.");
    }
    const std::size_t end = m_collection.rfind('/');
    const std::string parent = end == 0 ? "/" : m_collection.substr(0, end);
    m_path = (parent == "/" ? "" : parent) + "/." + m_collection.substr(end + 1) + ".bundlectl";
    if (access == READ) {
        return;
    }
    if (m_collection == "/" || DeviceOf(parent) != status.st_dev) {
        throw Refusal(
            "the collection " + Printable(m_collection) +
            " is a mount point, so nothing can lie beside it on the same file system. Let the collection be a "
            "folder of the mounted file system.");
    }
    EnsureDirectory(m_path);
    EnsureDirectory(m_path + "/versions");
    if (DeviceOf(m_path) != status.st_dev) {
        throw Refusal(Printable(m_path) + " lies on another file system than the collection. Unmount or move it.");
    }
}

std::string Store::FaultOfReading() const
{
    const std::string versions = m_path + "/versions";
    const bool isReadable = ::access(versions.c_str(), R_OK | X_OK) == 0 || errno == ENOENT;
    return isReadable ? "" : "the kept versions in " + Printable(versions) + " cannot be read: " + std::strerror(errno);
}

StoreLock::StoreLock(const Store& store, const std::string& what, std::chrono::milliseconds patience,
                     const std::function<void(const std::string&)>& tell)
{
    using Clock = std::chrono::steady_clock;
    constexpr std::chrono::milliseconds pause{50};
    const std::string path = store.Path() + "/lock";
    m_fd = Common::UniqueFd(::open(path.c_str(), O_RDWR | O_CREAT | O_CLOEXEC | O_NOFOLLOW, 0600));
    if (!m_fd.IsOpen()) {
        Fail(Printable(path) + " cannot be opened");
    }
    bool isTold = false;
    for (const auto end = Clock::now() + patience; ::flock(m_fd.Get(), LOCK_EX | LOCK_NB) != 0;) {
        if (errno != EWOULDBLOCK && errno != EINTR) {
            Fail(Printable(path) + " cannot be locked");
        }
        const std::string who = Printable(Model::ReadFileAtMost(path, 256).value_or(""));
        if (Clock::now() >= end) {
            throw TimedOut("another one is at it: " + who + ". Try again when it has ended.");
        }
        if (!std::exchange(isTold, true)) {
            tell(who);
        }
        std::this_thread::sleep_for(pause);
    }
    const std::string text = "process " + std::to_string(::getpid()) + ", " + what;
    if (::ftruncate(m_fd.Get(), 0) != 0 ||
        ::pwrite(m_fd.Get(), text.data(), text.size(), 0) != static_cast<ssize_t>(text.size())) {
        Fail(Printable(path) + " cannot be written");
    }
}

Shelf::Shelf(const Store& store, const std::string& directory)
    : m_collection(store.Collection()), m_target(store.Collection() + "/" + directory),
      m_path(store.Path() + "/versions/" + directory)
{
    if (directory.empty() || directory == "." || directory == ".." || directory.find('/') != std::string::npos) {
        throw Refusal("\"" + Printable(directory) + "\" is no name for a directory of the collection.");
    }
    if (!store.IsForReading()) {
        EnsureDirectory(m_path);
    }
}

bool Shelf::HasTarget() const
{
    return ExistsAt(m_target);
}

void Shelf::Tidy()
{
    RemoveTree(m_path + PART);
    if (ExistsAt(m_path + NEXT)) {
        if (HasReplacedVersion()) {
            KeepDisplaced(m_path + NEXT);
        } else {
            RemoveTree(m_path + NEXT);
        }
    }
    for (const std::string& name : Model::ListDirectory(m_path).value_or(std::vector<std::string>())) {
        const int number = NumberIn(name);
        if (number != 0 && ReadVersion(PathOf(number)).number != number) {
            KeepDisplaced(PathOf(number));
        }
    }
}

// A version that is not installed yet is later than the one in force. A replaced version is earlier.
bool Shelf::HasReplacedVersion() const
{
    return ExistsAt(m_path + NEXT) && HasTarget() && ReadVersion(m_path + NEXT).number <= ReadVersion(m_target).number;
}

std::string Shelf::Begin()
{
    std::string path = m_path + PART;
    if (::mkdir(path.c_str(), 0755) != 0 || ::chmod(path.c_str(), 0755) != 0) {
        Fail(Printable(path) + " cannot be made");
    }
    return path;
}

int Shelf::Finish(const std::string& from)
{
    // Reserves one number for a version in force that has none.
    const bool isCounted = !HasTarget() || ReadVersion(m_target).number != 0;
    const int number = HighestNumber() + (isCounted ? 1 : 2);
    WriteVersion(m_path + PART, number, from);
    SyncTree(m_path + PART);
    Rename(m_path + PART, m_path + NEXT, NO_REPLACE);
    SyncFile(m_path);
    return number;
}

std::optional<int> Shelf::Install()
{
    const bool isUpdate = HasTarget();
    MoveOrExchange(m_path + NEXT);
    return isUpdate ? std::optional(KeepDisplaced(m_path + NEXT)) : std::nullopt;
}

void Shelf::MoveOrExchange(const std::string& version)
{
    Rename(version, m_target, HasTarget() ? EXCHANGE : NO_REPLACE);
    Sync();
}

// The directory's name is the number of its version. A version without a number gets the number below that of the
// version that has replaced it.
int Shelf::KeepDisplaced(const std::string& path)
{
    int number = ReadVersion(path).number;
    if (number == 0) {
        number = std::max(ReadVersion(m_target).number - 1, 1);
        while (ExistsAt(PathOf(number)) && PathOf(number) != path) {
            ++number;
        }
        WriteVersion(path, number, "");
    }
    if (PathOf(number) != path) {
        RemoveTree(PathOf(number));
        Rename(path, PathOf(number), NO_REPLACE);
        Sync();
    }
    return number;
}

void Shelf::Restore(int number)
{
    const bool isExchange = HasTarget();
    const std::string path = PathOf(number);
    if (!ExistsAt(path)) {
        throw Refusal("there is no version " + std::to_string(number) +
                      ". bundlectl versions lists those that there are.");
    }
    MoveOrExchange(path);
    if (isExchange) {
        KeepDisplaced(path);
    }
}

void Shelf::Withdraw()
{
    int number = ReadVersion(m_target).number;
    if (number == 0) {
        number = HighestNumber() + 1;
    }
    RemoveTree(PathOf(number));
    Rename(m_target, PathOf(number), NO_REPLACE);
    Sync();
    if (ReadVersion(PathOf(number)).number == 0) {
        WriteVersion(PathOf(number), number, "");
    }
}

void Shelf::Drop(int number)
{
    // Removes it from the list in one step: a partly removed version is not a version.
    RemoveTree(m_path + PART);
    if (ExistsAt(PathOf(number))) {
        Rename(PathOf(number), m_path + PART, NO_REPLACE);
        RemoveTree(m_path + PART);
    }
}

void Shelf::Prune(std::size_t keep)
{
    for (const Version& version : Versions()) {
        if (version.isInForce) {
            continue;
        }
        if (keep > 0) {
            --keep;
        } else {
            Drop(version.number);
        }
    }
}

std::vector<Version> Shelf::Versions() const
{
    std::vector<Version> versions;
    if (HasTarget()) {
        versions.push_back(ReadVersion(m_target));
        versions.back().isInForce = true;
    }
    for (const std::string& name : Model::ListDirectory(m_path).value_or(std::vector<std::string>())) {
        if (const int number = NumberIn(name); number != 0) {
            versions.push_back(ReadVersion(PathOf(number)));
            // After an exchange that was not completed, the directory has the number of the other version.
            versions.back().number = versions.back().number == 0 ? number : versions.back().number;
        }
    }
    if (HasReplacedVersion()) {
        versions.push_back(ReadVersion(m_path + NEXT));
    }
    // A version in force without a number is later than all others.
    std::sort(versions.begin(), versions.end(), [](const Version& left, const Version& right) {
        const auto rank = [](const Version& version) { return version.number == 0 ? INT32_MAX : version.number; };
        return rank(left) > rank(right);
    });
    return versions;
}

int Shelf::HighestNumber() const
{
    int highest = 0;
    for (const Version& version : Versions()) {
        highest = std::max(highest, version.number);
    }
    return highest;
}

void Shelf::Sync() const
{
    SyncFile(m_collection);
    SyncFile(m_path);
}

std::vector<std::string> DirectoriesWithVersions(const Store& store)
{
    auto names = Model::ListDirectory(store.Path() + "/versions").value_or(std::vector<std::string>());
    std::sort(names.begin(), names.end());
    return names;
}

} // namespace Put
