// A program that does what its own name says. It writes notes to the directory in the environment variable NOTES.
#include <dirent.h>
#include <fcntl.h>
#include <sys/resource.h>
#include <unistd.h>

#include <array>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <filesystem>
#include <fstream>
#include <string>

namespace {

namespace fs = std::filesystem;

constexpr int RELAUNCH_STATUS = 2;
constexpr int MOST_PROCESSES = 300; // a bound of this program's own

struct Deed {
    const char* name;
    void (*act)();
};

std::string NotePath(const std::string& name)
{
    const char* const notes = std::getenv("NOTES");
    return std::string(notes != nullptr ? notes : "/nonexistent") + "/" + name;
}

void Note(const std::string& name, const std::string& text)
{
    std::ofstream(NotePath(name), std::ios::app) << text << '\n';
}

/// For acts that a relaunch must not repeat.
bool IsFirstRun(const std::string& name)
{
    const int fd = ::open(NotePath(name).c_str(), O_CREAT | O_EXCL | O_CLOEXEC, 0600);
    return fd != -1;
}

void Pause(long milliseconds)
{
    timespec time{milliseconds / 1000, milliseconds % 1000 * 1'000'000};
    while (::nanosleep(&time, &time) == -1) {
    }
}

fs::path OwnBundle()
{
    return fs::read_symlink("/proc/self/exe").parent_path().parent_path();
}

void LeaveGroup()
{
    ::setpgid(0, 0);
}

void LeaveSession()
{
    ::setsid();
}

void StopItself()
{
    ::kill(::getpid(), SIGSTOP);
}

void IgnoreSignals()
{
    for (int signal = 1; signal < NSIG; ++signal) {
        static_cast<void>(std::signal(signal, SIG_IGN)); // two of them cannot be ignored
    }
}

void CloseAll()
{
    ::close_range(0, ~0U, 0);
}

void WriteEverywhere()
{
    int taken = 0;
    for (int fd = STDERR_FILENO + 1; fd < 20'000; ++fd) {
        taken += ::write(fd, "x", 1) == 1 ? 1 : 0;
    }
    Note("written", std::to_string(taken));
}

pid_t ParentOf(const std::string& process)
{
    std::ifstream stat("/proc/" + process + "/stat");
    std::string number;
    std::string name;
    std::string state;
    pid_t parent = 0;
    stat >> number >> name >> state >> parent;
    return parent;
}

/// The server, which is this program's parent. After the server's death the parent is another process; this program
/// then ends.
pid_t Server()
{
    const pid_t parent = ::getppid();
    std::ifstream file("/proc/" + std::to_string(parent) + "/comm");
    std::string name;
    file >> name;
    if (name != "bundle_server") {
        std::_Exit(0);
    }
    return parent;
}

void KillSiblings()
{
    if (!IsFirstRun("siblings")) {
        return;
    }
    const pid_t server = Server();
    DIR* const processes = ::opendir("/proc");
    while (const dirent* const entry = ::readdir(processes)) {
        const auto pid = static_cast<pid_t>(std::strtol(entry->d_name, nullptr, 10));
        if (pid > 0 && pid != ::getpid() && ParentOf(entry->d_name) == server) {
            ::kill(pid, SIGKILL);
        }
    }
    ::closedir(processes);
    Note("siblings", "killed");
}

void KillGroup()
{
    ::kill(0, SIGTERM);
}

/// In a process of its own: a sibling may kill the item, and then nothing would continue the server.
void StopServer()
{
    const pid_t server = Server();
    if (::fork() == 0) {
        if (IsFirstRun("stopped")) {
            ::kill(server, SIGSTOP);
            Pause(300);
            ::kill(server, SIGCONT);
            Note("stopped", "continued");
        }
        ::_exit(0);
    }
}

/// Runs as a user with a limit of few processes, if the program may change its user.
void ForkForever()
{
    const rlimit few{40, 40};
    ::setrlimit(RLIMIT_NPROC, &few);
    const auto user = static_cast<uid_t>(100'000 + ::getpid());
    std::ofstream note(NotePath("forked"));
    if (::geteuid() == 0 && ::setresuid(user, user, user) != 0) {
        note << "still root\n";
    }
    for (int i = 0; i < MOST_PROCESSES; ++i) {
        if (::fork() == -1) {
            note << "no more" << std::endl;
            return;
        }
    }
    note << "enough" << std::endl;
}

void DeleteBundle()
{
    fs::remove_all(OwnBundle());
}

void RewriteManifest()
{
    const std::string manifest = OwnBundle() / "BundleManifest.ini";
    for (;;) {
        std::ofstream(manifest, std::ios::app) << "; " << std::time(nullptr) << '\n';
        Note("rewritten", "again");
        Pause(1000);
    }
}

void AskForMore()
{
    std::_Exit(RELAUNCH_STATUS);
}

constexpr std::array<Deed, 13> DEEDS{{
    {"leave-group", LeaveGroup},
    {"leave-session", LeaveSession},
    {"stop-itself", StopItself},
    {"ignore-signals", IgnoreSignals},
    {"close-all", CloseAll},
    {"write-everywhere", WriteEverywhere},
    {"kill-siblings", KillSiblings},
    {"kill-group", KillGroup},
    {"stop-server", StopServer},
    {"fork-for-ever", ForkForever},
    {"delete-bundle", DeleteBundle},
    {"rewrite-manifest", RewriteManifest},
    {"ask-for-more", AskForMore},
}};

} // namespace

int main(int /*argc*/, char** argv)
{
    for (const Deed& deed : DEEDS) {
        if (std::strcmp(argv[0], deed.name) == 0) {
            deed.act();
            for (;;) {
                ::pause();
            }
        }
    }
    return 0;
}
