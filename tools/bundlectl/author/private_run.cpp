#include "private_run.h"

#include "common/service_directory.h"
#include "common/unique_fd.h"
#include "exit_status.h"
#include "model/files.h"
#include "model/proc.h"

#include <fcntl.h>
#include <poll.h>
#include <sched.h>
#include <sys/mount.h>
#include <sys/prctl.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <exception>
#include <initializer_list>
#include <iostream>
#include <thread>
#include <vector>

namespace Trials {

namespace {

using Common::UniqueFd;

bool g_isAskedToEnd = false; // set in the action's process, which has a single thread

[[noreturn]] void Refuse(const std::string& what)
{
    throw NotPermitted(
        what + ": " + std::strerror(errno) +
        ". Bundles are tried in namespaces of their own. Run it as root, or permit users to make namespaces: sysctl "
        "kernel.unprivileged_userns_clone=1, on Ubuntu kernel.apparmor_restrict_unprivileged_userns=0. A container "
        "needs "
        "--privileged.");
}

sigset_t SetOf(std::initializer_list<int> signals)
{
    sigset_t set;
    ::sigemptyset(&set);
    for (const int signal : signals) {
        ::sigaddset(&set, signal);
    }
    return set;
}

bool Write(const char* path, const std::string& text)
{
    const UniqueFd file(::open(path, O_WRONLY | O_CLOEXEC));
    return file.IsOpen() && ::write(file.Get(), text.data(), text.size()) == static_cast<ssize_t>(text.size());
}

/// Gives the process the same user inside and outside.
std::string IdentityMap(unsigned id)
{
    return std::to_string(id) + " " + std::to_string(id) + " 1";
}

void EnterNamespaces()
{
    constexpr int wanted = CLONE_NEWNS | CLONE_NEWPID;
    // Root in a container may lack the right, and can still make a user namespace.
    if (::geteuid() == 0 && ::unshare(wanted) == 0) {
        return;
    }
    const unsigned user = ::geteuid();
    const unsigned group = ::getegid();
    if (::unshare(wanted | CLONE_NEWUSER) != 0) {
        Refuse("No namespaces can be made");
    }
    // The kernel accepts a map of groups only from a process that can no longer drop groups.
    if (!Write("/proc/self/setgroups", "deny") || !Write("/proc/self/uid_map", IdentityMap(user)) ||
        !Write("/proc/self/gid_map", IdentityMap(group))) {
        Refuse("The user namespace cannot be set up");
    }
}

void MountOrRefuse(const char* source, const char* target, const char* type, unsigned long flags, const char* data)
{
    if (::mount(source, target, type, flags, data) != 0) {
        Refuse(std::string(target) + " cannot be mounted");
    }
}

/// Mounts a file system in memory over /mnt, with the same directories except the directory of services.
void MountPrivateMnt()
{
    constexpr const char root[] = "/mnt";
    const UniqueFd here(::open(".", O_PATH | O_DIRECTORY | O_CLOEXEC));
    const std::vector<std::string> names = Model::ListDirectory(root).value_or(std::vector<std::string>());
    if (::chdir(root) != 0) {
        Refuse("/mnt is missing");
    }
    MountOrRefuse("tmpfs", root, "tmpfs", MS_NOSUID | MS_NODEV, "mode=0755");
    for (const std::string& name : names) {
        struct stat status {};
        const std::string target = std::string(root) + "/" + name;
        if (target != Common::SERVICE_DIRECTORY && ::lstat(name.c_str(), &status) == 0 && S_ISDIR(status.st_mode)) {
            ::mkdir(target.c_str(), 0755);
            MountOrRefuse(name.c_str(), target.c_str(), nullptr, MS_BIND | MS_REC, nullptr);
        }
    }
    if (::fchdir(here.Get()) != 0 || ::mkdir(PRIVATE_DIRECTORY, 0755) != 0 || !Common::MakeServiceDirectory()) {
        Refuse("/mnt cannot be filled");
    }
}

void MountAll()
{
    MountOrRefuse(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr);
    MountOrRefuse("proc", "/proc", "proc", MS_NOSUID | MS_NODEV | MS_NOEXEC, nullptr);
    MountPrivateMnt();
}

/// A pipe, one end for the outer process and one for the inner.
struct Pipe {
    UniqueFd read;
    UniqueFd write;
};

Pipe MakePipe()
{
    int ends[2];
    if (::pipe2(ends, O_CLOEXEC) != 0) {
        Refuse("No pipe can be made");
    }
    return {UniqueFd(ends[0]), UniqueFd(ends[1])};
}

/// The first process of the namespaces. @param life becomes readable when the outer process has ended
[[noreturn]] void RunInside(const std::function<int()>& action, const UniqueFd& life)
{
    int status = EXIT_FAILED;
    try {
        ::prctl(PR_SET_PDEATHSIG, SIGKILL);
        pollfd watched{life.Get(), 0, 0};
        if (::poll(&watched, 1, 0) != 0) {
            ::_exit(status); // it died before prctl
        }
        ::setsid(); // so that only the outer process gets the terminal's Ctrl-C
        MountAll();
        status = action();
    } catch (const NotPermitted& exception) {
        std::cerr << "bundlectl: " << exception.what() << '\n';
        status = EXIT_UNREACHABLE;
    } catch (const std::exception& exception) {
        std::cerr << "bundlectl: " << exception.what() << '\n';
    }
    std::cout << std::flush;
    std::exit(status);
}

/// Passes signals on until the inner process has ended. Returns its exit status.
int WaitFor(pid_t inner, const sigset_t& signals)
{
    for (bool isAsked = false;;) {
        const int signal = ::sigwaitinfo(&signals, nullptr);
        int status = 0;
        if (::waitpid(inner, &status, WNOHANG) == inner) {
            return WIFEXITED(status) ? WEXITSTATUS(status) : EXIT_FAILED;
        }
        if (signal > 0 && signal != SIGCHLD) {
            ::kill(inner, isAsked ? SIGKILL : SIGTERM);
            isAsked = true;
        }
    }
}

bool IsAlone()
{
    const std::vector<Model::ProcessStat> all = Model::Proc().Processes();
    return std::all_of(all.begin(), all.end(), [](const Model::ProcessStat& process) {
        return process.pid == ::getpid() || !process.IsAlive();
    });
}

} // namespace

int RunPrivately(const std::function<int()>& action)
{
    EnterNamespaces();
    const sigset_t signals = SetOf({SIGCHLD, SIGINT, SIGTERM, SIGHUP, SIGQUIT});
    ::sigprocmask(SIG_BLOCK, &signals, nullptr);
    Pipe life = MakePipe();
    Pipe ready = MakePipe();
    std::cout << std::flush;
    const pid_t inner = ::fork();
    if (inner < 0) {
        Refuse("No process can be made");
    }
    if (inner == 0) {
        // Blocks the signals again: the server's fork handler has unblocked them. An unblocked signal has no effect on
        // a first process.
        ::sigprocmask(SIG_BLOCK, &signals, nullptr);
        ready.write.Reset();
        life.write.Reset();
        RunInside(action, life.read);
    }
    ready.write.Reset();
    char nothing = 0;
    while (::read(ready.read.Get(), &nothing, 1) < 0 && errno == EINTR) {
    }
    return WaitFor(inner, signals);
}

bool Pause(std::chrono::milliseconds moment)
{
    const auto seconds = std::chrono::duration_cast<std::chrono::seconds>(moment);
    const timespec span{static_cast<time_t>(seconds.count()),
                        static_cast<long>(std::chrono::nanoseconds(moment - seconds).count())};
    const sigset_t stop = SetOf({SIGTERM});
    if (!g_isAskedToEnd) {
        g_isAskedToEnd = ::sigtimedwait(&stop, nullptr, &span) == SIGTERM;
    }
    return !g_isAskedToEnd;
}

void EndAllProcesses(std::chrono::milliseconds grace)
{
    using Clock = std::chrono::steady_clock;
    ::kill(-1, SIGTERM); // this does not include the calling process
    ::kill(-1, SIGCONT);
    const Clock::time_point end = Clock::now() + grace;
    while (!IsAlone() && Clock::now() < end) {
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
    ::kill(-1, SIGKILL);
    while (::waitpid(-1, nullptr, 0) > 0 || errno == EINTR) {
    }
}

} // namespace Trials
