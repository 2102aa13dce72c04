#ifndef TESTS_SUPPORT_FAULT_H
#define TESTS_SUPPORT_FAULT_H

#include <lumo.h>

#include <bolt.h>

#include <functional>
#include <string>
#include <vector>

/// Calls of the system, of the framework and of the platform that a test can see, and make fail. They are stood in for
/// by the linker in the programs that link this file, in what is linked statically into them only: the shared libraries
/// make their own calls undisturbed.
enum class Call {
    PIPE2,
    FORK,
    SETPGID,
    GETPGID,
    KILL,
    WAITID,
    WAITPID,
    READ_BYTE,  ///< read of a single byte
    WRITE_BYTE, ///< write of a single byte
    READ,       ///< any other read
    WRITE,      ///< any other write; with 0 in place of an errno it writes half of what it is given
    OPEN,
    FSYNC,
    CLOSE, ///< fails when it has closed
    FCNTL,
    DUP3,
    OPENDIR,
    READDIR,
    STAT,
    LSTAT,
    FSTATAT,
    READLINK,
    MKDIR,
    CHMOD,
    UNLINK,
    FLOCK,
    INOTIFY_RM_WATCH,
    NANOSLEEP, ///< fails before any of the time has gone
    PRCTL,
    SET_LIMIT,   ///< setrlimit
    SIGNAL_MASK, ///< pthread_sigmask: returns the errno
    RAISE,
    SIGNALFD,
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
    START_THREAD,     ///< std::thread's: throws std::system_error
    LOCK_MUTEX,       ///< fails on the thread that has made the Fault, and on no other
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

/// Makes a call fail while it lives, on whichever thread and in forked children too. One a call at a time.
class Fault {
public:
    static constexpr int ALWAYS = 1'000'000'000;

    /// @param value the errno of a call of the system, with which it returns -1; the result of a call of the platform
    /// (null, where that is a pointer); the code of an exception
    /// @param count how many times it fails
    /// @param after how many calls go through before
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

/// Does something before each call while it lives, with its first argument where that is a number (a descriptor, a
/// pid). The call then goes on, unless the action throws, which a call of the framework lets pass. Its end waits for
/// actions under way on other threads.
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

/// While it lives, nobody pauses: nanosleep returns at once, its whole time gone.
class NoPauses {
public:
    NoPauses();
    ~NoPauses();
    NoPauses(const NoPauses&) = delete;
    NoPauses& operator=(const NoPauses&) = delete;
};

/// Counts the calls since it was made, whether they failed or not. Not of LOCK_MUTEX.
class CallCounter {
public:
    explicit CallCounter(Call call);
    int Count() const;

private:
    Call m_call;
    int m_before;
};

/// While it lives, lumo_message_async_send sends.
class RealSending {
public:
    RealSending();
    ~RealSending();
    RealSending(const RealSending&) = delete;
    RealSending& operator=(const RealSending&) = delete;
};

/// What lumo_message_async_send was given. Nothing is sent.
struct SentMessage {
    lumo_header header;
    std::string content;
    const bolt_connection* connection;
    int flags;
};
std::vector<SentMessage> TakeSentMessages();

/// What the last bolt_server_register and bolt_event_mgr_run were given.
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
