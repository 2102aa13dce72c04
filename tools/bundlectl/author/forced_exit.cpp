#include "forced_exit.h"

#include <linux/audit.h>
#include <linux/elf.h>
#include <sys/ptrace.h>
#include <sys/syscall.h>
#include <sys/uio.h>
#include <sys/user.h>
#include <sys/wait.h>

#include <chrono>
#include <csignal>
#include <optional>
#include <thread>

namespace Trials {

namespace {

#if defined(__x86_64__)
constexpr unsigned OWN_ARCHITECTURE = AUDIT_ARCH_X86_64;

bool ReplaceCall(pid_t pid, int status)
{
    user_regs_struct registers{};
    iovec part{&registers, sizeof registers};
    if (::ptrace(PTRACE_GETREGSET, pid, NT_PRSTATUS, &part) != 0) {
        return false;
    }
    registers.orig_rax = SYS_exit_group;
    registers.rdi = static_cast<unsigned>(status);
    return ::ptrace(PTRACE_SETREGSET, pid, NT_PRSTATUS, &part) == 0;
}
#elif defined(__aarch64__)
constexpr unsigned OWN_ARCHITECTURE = AUDIT_ARCH_AARCH64;

bool ReplaceCall(pid_t pid, int status)
{
    user_regs_struct registers{};
    iovec part{&registers, sizeof registers};
    int call = SYS_exit_group;
    iovec number{&call, sizeof call};
    if (::ptrace(PTRACE_GETREGSET, pid, NT_PRSTATUS, &part) != 0) {
        return false;
    }
    registers.regs[0] = static_cast<unsigned>(status);
    return ::ptrace(PTRACE_SETREGSET, pid, NT_PRSTATUS, &part) == 0 &&
           ::ptrace(PTRACE_SETREGSET, pid, NT_ARM_SYSTEM_CALL, &number) == 0;
}
#else
constexpr unsigned OWN_ARCHITECTURE = 0;

bool ReplaceCall(pid_t /*pid*/, int /*status*/)
{
    return false;
}
#endif

/// Traces a process until the end of the scope.
class Tracing {
public:
    explicit Tracing(pid_t pid) : m_pid(pid)
    {
        m_isAttached = ::ptrace(PTRACE_SEIZE, pid, nullptr, PTRACE_O_TRACESYSGOOD) == 0 &&
                       ::ptrace(PTRACE_INTERRUPT, pid, nullptr, nullptr) == 0;
    }
    Tracing(const Tracing&) = delete;
    Tracing& operator=(const Tracing&) = delete;
    ~Tracing()
    {
        if (m_isAttached && !m_isStopped) { // only a stopped process can be released
            ::ptrace(PTRACE_INTERRUPT, m_pid, nullptr, nullptr);
            NextStop();
        }
        ::ptrace(PTRACE_DETACH, m_pid, nullptr, nullptr);
    }

    /// How it has stopped. Empty when it has ended, or has not stopped within seconds.
    std::optional<int> NextStop()
    {
        constexpr std::chrono::milliseconds patience(2000);
        constexpr std::chrono::milliseconds pause(5);
        int status = 0;
        for (auto left = patience; m_isAttached && left.count() > 0; left -= pause) {
            if (::waitpid(m_pid, &status, __WALL | WNOHANG) == m_pid) {
                m_isStopped = WIFSTOPPED(status);
                m_isAttached = m_isStopped;
                return m_isStopped ? std::optional(WSTOPSIG(status)) : std::nullopt;
            }
            std::this_thread::sleep_for(pause);
        }
        return std::nullopt;
    }

    /// Runs it up to the next system call.
    void Continue(int signal)
    {
        m_isStopped = false;
        ::ptrace(PTRACE_SYSCALL, m_pid, nullptr, signal);
    }

private:
    const pid_t m_pid;
    bool m_isAttached = false;
    bool m_isStopped = false;
};

/// Whether it is about to make a system call.
bool IsBeforeCall(pid_t pid)
{
    __ptrace_syscall_info info{};
    return ::ptrace(PTRACE_GET_SYSCALL_INFO, pid, sizeof info, &info) > 0 && info.op == PTRACE_SYSCALL_INFO_ENTRY &&
           info.arch == OWN_ARCHITECTURE;
}

} // namespace

bool CanForceExit()
{
    return OWN_ARCHITECTURE != 0;
}

bool ForceExit(pid_t pid, int status)
{
    constexpr int callStop = SIGTRAP | 0x80;
    Tracing tracing(pid);
    for (std::optional<int> stop = tracing.NextStop(); stop; stop = tracing.NextStop()) {
        if (*stop == callStop && IsBeforeCall(pid)) {
            return ReplaceCall(pid, status);
        }
        const bool isOfTracing = *stop == callStop || *stop == SIGTRAP || *stop == SIGSTOP;
        tracing.Continue(isOfTracing ? 0 : *stop);
    }
    return false;
}

} // namespace Trials
