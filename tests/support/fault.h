#ifndef TESTS_SUPPORT_FAULT_H
#define TESTS_SUPPORT_FAULT_H

#include <lumo.h>

#include <bolt.h>

#include <functional>
#include <string>
#include <vector>

/// Calls of the system, of the framework and of the platform that a test can count and make fail. The linker replaces
/// them in the programs that link this file, in their statically linked code only: shared libraries keep their own
/// calls.
enum class Call {
    PIPE2,
    FORK,
    SETPGID,
    GETPGID,
    KILL,
    WAITID,
    WAITPID,    ///< with 0 in place of an errno it finds a child that has not ended
    READ_BYTE,  ///< read of a single byte
    WRITE_BYTE, ///< write of a single byte
    READ,       ///< any other read
    WRITE,      ///< any other write; with 0 in place of an errno it writes half of its data
    OPEN,
    FSYNC,
    CLOSE, ///< fails after it has closed
    FCNTL,
    DUP3,
    OPENDIR,
    READDIR,
    STAT,
    LSTAT,
    FSTATAT,
    STATFS,
    STATX,
    READLINK,
    MKDIR,
    CHMOD,
    UNLINK,
    FLOCK,
    INOTIFY_RM_WATCH,
    NANOSLEEP, ///< fails before any time has passed
    PRCTL,
    SET_LIMIT,   ///< setrlimit
    SIGNAL_MASK, ///< pthread_sigmask: returns the errno
    RAISE,
    SIGNALFD,
    TIMERFD_CREATE,
    TIMERFD_SETTIME,
    SOCKET,
    BIND,
    LISTEN,
    CONNECT,
    FCHMOD,
    ACCEPT,
    GETSOCKOPT,
    RECV,
    SEND,
    EVENT_CONFIG_NEW,
    EVENT_CONFIG_SET_FLAG,
    EVENT_BASE_NEW,
    EVENT_BASE_LOOPEXIT,
    EVENT_BASE_DISPATCH,
    EVENT_NEW,
    EVENT_ADD,
    CANCEL_THREAD,
    DLOPEN,
    START_THREAD,     ///< std::thread's: throws std::system_error
    LOCK_MUTEX,       ///< fails only on the thread that has made the Fault
    LAUNCH,           ///< Poco::Process::launch: throws Poco::SystemException
    WAIT_FOR_PROCESS, ///< Poco::ProcessHandle::wait: throws Poco::SystemException
    LUMO_MESSAGE_NEW,
    LUMO_MESSAGE_PUT,
    LUMO_CONTENT,
    LUMO_CONTENT_ADD,
    SPRINTF_S,
    BOLT_EVENT_MGR_NEW,
    BOLT_SERVER_REGISTER,
    BOLT_EVENT_MGR_RUN,
    NUMBER_OF_CALLS
};

/// While it lives, a call fails, on every thread and in forked children too. Each call may have one at a time.
class Fault {
public:
    static constexpr int ALWAYS = 1'000'000'000;

    /// @param value for a call of the system, which returns -1, its errno; for a call of the platform its result (null,
    /// if that is a pointer); for a call that throws the exception's code
    /// @param count how many times it fails
    /// @param after how many calls succeed before
    explicit Fault(Call call, int value, int count = ALWAYS, int after = 0);

    /// Whether it has made a call fail.
    bool HasStruck() const;

    ~Fault();
    Fault(const Fault&) = delete;
    Fault& operator=(const Fault&) = delete;

private:
    const Call m_call;
    const int m_count;
};

/// While it lives, an action runs before each call. The action gets the call's first argument, if that is a number (a
/// descriptor, a pid). Then the call goes on, unless the action throws, which only calls of the framework may. The
/// destructor waits for actions that run on other threads.
class BeforeEach {
public:
    using Action = std::function<void(int)>;

    BeforeEach(Call call, Action action);
    ~BeforeEach();
    BeforeEach(const BeforeEach&) = delete;
    BeforeEach& operator=(const BeforeEach&) = delete;

private:
    const Call m_call;
    const Action m_action;
};

/// While it lives, nanosleep returns at once as if its whole time had passed.
class NoPauses {
public:
    NoPauses();
    ~NoPauses();
    NoPauses(const NoPauses&) = delete;
    NoPauses& operator=(const NoPauses&) = delete;
};

/// While it lives, each file seems to be on an overlay.
class OverlayEverywhere {
public:
    OverlayEverywhere();
    ~OverlayEverywhere();
    OverlayEverywhere(const OverlayEverywhere&) = delete;
    OverlayEverywhere& operator=(const OverlayEverywhere&) = delete;
};

/// Counts the calls since the object was made, failed ones too. Does not count LOCK_MUTEX.
class CallCounter {
public:
    explicit CallCounter(Call call);
    int Count() const;

private:
    Call m_call;
    int m_before;
};

/// While it lives, lumo_message_async_send sends. Otherwise it only records.
class RealSending {
public:
    RealSending();
    ~RealSending();
    RealSending(const RealSending&) = delete;
    RealSending& operator=(const RealSending&) = delete;
};

/// The messages that lumo_message_async_send has recorded.
struct SentMessage {
    lumo_header header;
    std::string content;
    const bolt_connection* connection;
    int flags;
};
std::vector<SentMessage> TakeSentMessages();

/// The arguments of the last bolt_server_register and bolt_event_mgr_run.
struct ServiceCalls {
    std::string service;
    bolt_event_mgr* registeredManager = nullptr;
    const bolt_server_ops* ops = nullptr;
    void* argument = nullptr;
    bolt_event_mgr* runManager = nullptr;
    int timeout = 0;
};
ServiceCalls LastServiceCalls();

#endif
