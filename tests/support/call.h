#ifndef TESTS_SUPPORT_CALL_H
#define TESTS_SUPPORT_CALL_H

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

#endif
