#include "bundlectl/author/killed_program.h"

#include <sys/ptrace.h>
#include <sys/syscall.h>
#include <sys/wait.h>

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <csignal>
#include <iterator>

namespace {

/// Whether a call changes files or the disk's content. Kills at any moment between two such calls leave the same files.
bool ChangesFiles(const __ptrace_syscall_info& info)
{
    constexpr long calls[] = {
        SYS_write,     SYS_pwrite64, SYS_ftruncate, SYS_fsync,    SYS_mkdirat, SYS_unlinkat, SYS_linkat, SYS_symlinkat,
        SYS_renameat2, SYS_fchmod,   SYS_fchmodat,  SYS_fchownat, SYS_flock,
#ifdef SYS_mkdir // the calls of older machines
        SYS_mkdir,     SYS_rmdir,    SYS_unlink,    SYS_link,     SYS_symlink, SYS_rename,   SYS_chmod,  SYS_chown,
#endif
    };
    const auto call = static_cast<long>(info.entry.nr);
    const bool isOpening = call == SYS_openat && (info.entry.args[2] & O_CREAT) != 0;
    return isOpening || std::find(std::begin(calls), std::end(calls), call) != std::end(calls);
}

pid_t StartTraced(const std::vector<std::string>& arguments)
{
    std::vector<char*> words;
    words.reserve(arguments.size() + 1);
    for (const std::string& argument : arguments) {
        words.push_back(const_cast<char*>(argument.c_str()));
    }
    words.push_back(nullptr);
    const pid_t child = ::fork();
    if (child == 0) {
        const int null = ::open("/dev/null", O_WRONLY);
        ::dup2(null, STDOUT_FILENO);
        ::dup2(null, STDERR_FILENO);
        ::ptrace(PTRACE_TRACEME, 0, nullptr, nullptr);
        ::execv(words[0], words.data());
        ::_exit(127);
    }
    return child;
}

} // namespace

bool RunKilledAt(const std::vector<std::string>& arguments, int stops, const std::function<void()>& before)
{
    const pid_t child = StartTraced(arguments);
    int status = 0;
    ::waitpid(child, &status, 0); // its exec
    ::ptrace(PTRACE_SETOPTIONS, child, nullptr, PTRACE_O_EXITKILL | PTRACE_O_TRACESYSGOOD);
    bool isChanging = false;
    for (int passed = 0; WIFSTOPPED(status);) {
        __ptrace_syscall_info info{};
        ::ptrace(PTRACE_GET_SYSCALL_INFO, child, sizeof info, &info);
        if (info.op == PTRACE_SYSCALL_INFO_ENTRY) {
            isChanging = ChangesFiles(info);
        }
        if (isChanging && info.op != PTRACE_SYSCALL_INFO_NONE && passed++ == stops) {
            before();
            ::kill(child, SIGKILL);
            ::waitpid(child, &status, 0);
            return true;
        }
        ::ptrace(PTRACE_SYSCALL, child, nullptr, nullptr);
        ::waitpid(child, &status, 0);
    }
    return false;
}
