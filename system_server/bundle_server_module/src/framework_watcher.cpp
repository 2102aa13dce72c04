#include "framework_watcher.h"

#include "dir_stream.h"
#include "file_type.h"

#include <Poco/Exception.h>
#include <Poco/File.h>
#include <Poco/Runnable.h>
#include <Poco/Thread.h>

#include <fcntl.h>
#include <sys/inotify.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstring>
#include <string>

namespace SystemServer {

using Common::UniqueFd;

namespace {

// The read end of a pipe without a writer: a read finds the end of the data at once. A file for this purpose could be
// missing.
UniqueFd OpenEndedPipe()
{
    std::array<int, 2> ends{-1, -1};
    if (pipe2(ends.data(), O_CLOEXEC) == -1) {
        return UniqueFd();
    }
    const UniqueFd writeEnd(ends[1]);
    return UniqueFd(ends[0]);
}

/// Gives this file access to the framework's private thread: an explicit instantiation may name private members.
struct FrameworkThread {
    using Member = Poco::Thread Poco::DirectoryWatcher::*;
    friend Member MemberOf(FrameworkThread);
};
template <class Name, typename Name::Member Value> struct Reveal {
    friend typename Name::Member MemberOf(Name /*name*/) { return Value; }
};
template struct Reveal<FrameworkThread, &Poco::DirectoryWatcher::_thread>;

/// Small, because it lives as long as the watcher.
constexpr int LEFT_THREAD_STACK = 256 * 1024;

class Nothing : public Poco::Runnable {
public:
    void run() override {}
};

} // namespace

const std::string& RequireVisible(const std::string& path)
{
    const Poco::File directory(path);
    const bool isThere = FileType(path).has_value();
    errno = 0;
    if (isThere && !directory.exists() && errno != 0) {
        throw Poco::FileException("the framework can not look at it (" + std::string(std::strerror(errno)) + ")", path);
    }
    return path;
}

std::vector<int> InotifyDescriptors()
{
    const std::string descriptors = "/proc/self/fd/";
    const DirStream stream(opendir(descriptors.c_str()));
    std::vector<int> found;
    while (const dirent* const entry = stream ? readdir(stream.get()) : nullptr) {
        std::array<char, 32> target{};
        if (readlink((descriptors + entry->d_name).c_str(), target.data(), target.size() - 1) > 0 &&
            std::strcmp(target.data(), "anon_inode:inotify") == 0) {
            found.push_back(std::stoi(entry->d_name));
        }
    }
    return found;
}

// The framework has opened a descriptor that every bundle would inherit. The kernel continues to collect notifications
// for it that have no reader. The framework closes the descriptor's number when it ends, so another descriptor must
// take its place. The framework's thread may be waiting on the descriptor, for up to a fifth of a second. The end of
// its watch wakes it, and every later read finds the end of the data.
std::vector<UniqueFd> DetachInotify(const std::vector<int>& othersDescriptors)
{
    constexpr int firstWatch = 1;
    const UniqueFd endedPipe = OpenEndedPipe();
    std::vector<UniqueFd> detached;
    for (const int descriptor : InotifyDescriptors()) {
        if (std::find(othersDescriptors.begin(), othersDescriptors.end(), descriptor) != othersDescriptors.end()) {
            continue;
        }
        detached.emplace_back(fcntl(descriptor, F_DUPFD_CLOEXEC, 0));
        if (dup3(endedPipe.Get(), descriptor, O_CLOEXEC) == -1) {
            fcntl(descriptor, F_SETFD, FD_CLOEXEC);
        }
        inotify_rm_watch(detached.back().Get(), firstWatch);
    }
    return detached;
}

// The framework joins its thread again when it is destroyed. A thread cannot be joined twice: its handle may already
// belong to another thread. So the framework gets a thread that ends at once and still can be joined.
void StartIdleThread(Poco::DirectoryWatcher& watcher)
{
    static Nothing nothing;
    Poco::Thread& thread = watcher.*MemberOf(FrameworkThread());
    thread.setStackSize(LEFT_THREAD_STACK);
    thread.start(nothing);
}

} // namespace SystemServer
