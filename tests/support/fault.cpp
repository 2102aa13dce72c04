#include "support/fault.h"

#include <sprintf_s.h>

#include <Poco/Exception.h>
#include <Poco/Process.h>

#include <dirent.h>
#include <linux/magic.h>
#include <pthread.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <sys/vfs.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <atomic>
#include <cerrno>
#include <csignal>
#include <cstdarg>
#include <cstring>
#include <ctime>
#include <mutex>
#include <system_error>
#include <thread>
#include <utility>

namespace {

/// What is to happen to one call. Read between fork and exec too: no lock.
struct Plan {
    std::atomic<int> calls{0};
    std::atomic<int> value{0};
    std::atomic<int> after{0};
    std::atomic<int> count{0};
    std::atomic<const BeforeEach::Action*> action{nullptr};
    std::atomic<int> actionsUnderWay{0};
};

std::array<Plan, static_cast<std::size_t>(Call::NUMBER_OF_CALLS)> g_plans;
std::atomic<pthread_t> g_lockingThread;
std::atomic<bool> g_pauses{true};
std::atomic<bool> g_isOverlay{false};
std::atomic<bool> g_sends{false};

std::vector<SentMessage> g_sentMessages;
ServiceCalls g_serviceCalls;

Plan& PlanOf(Call call)
{
    return g_plans[static_cast<std::size_t>(call)];
}

/// Counts something as under way.
class UnderWay {
public:
    explicit UnderWay(std::atomic<int>& count) : m_count(count) { ++m_count; }
    ~UnderWay() { --m_count; }
    UnderWay(const UnderWay&) = delete;
    UnderWay& operator=(const UnderWay&) = delete;

private:
    std::atomic<int>& m_count;
};

void DoAction(Plan& plan, int argument)
{
    const UnderWay underWay(plan.actionsUnderWay);
    if (const BeforeEach::Action* const action = plan.action.load()) {
        (*action)(argument);
    }
}

/// Counts the call and does what is planned before it. True when it is to fail.
bool MustFail(Call call, int argument)
{
    Plan& plan = PlanOf(call);
    ++plan.calls;
    DoAction(plan, argument);
    if (plan.count <= 0 || plan.after.fetch_sub(1) > 0) {
        return false;
    }
    return plan.count.fetch_sub(1) > 0;
}

/// As MustFail, with errno set.
bool FailsWithErrno(Call call, int argument)
{
    if (!MustFail(call, argument)) {
        return false;
    }
    errno = PlanOf(call).value;
    return true;
}

} // namespace

Fault::Fault(Call call, int value, int count, int after) : m_call(call), m_count(count)
{
    Plan& plan = PlanOf(call);
    g_lockingThread = pthread_self();
    plan.value = value;
    plan.after = after;
    plan.count = count;
}

Fault::~Fault()
{
    PlanOf(m_call).count = 0;
    PlanOf(m_call).after = 0;
}

bool Fault::HasStruck() const
{
    return PlanOf(m_call).count < m_count;
}

NoPauses::NoPauses()
{
    g_pauses = false;
}

NoPauses::~NoPauses()
{
    g_pauses = true;
}

OverlayEverywhere::OverlayEverywhere()
{
    g_isOverlay = true;
}

OverlayEverywhere::~OverlayEverywhere()
{
    g_isOverlay = false;
}

RealSending::RealSending()
{
    g_sends = true;
}

RealSending::~RealSending()
{
    g_sends = false;
}

BeforeEach::BeforeEach(Call call, Action action) : m_call(call), m_action(std::move(action))
{
    PlanOf(m_call).action = &m_action;
}

BeforeEach::~BeforeEach()
{
    Plan& plan = PlanOf(m_call);
    plan.action = nullptr;
    while (plan.actionsUnderWay != 0) {
        std::this_thread::yield();
    }
}

CallCounter::CallCounter(Call call) : m_call(call), m_before(PlanOf(call).calls) {}

int CallCounter::Count() const
{
    return PlanOf(m_call).calls - m_before;
}

std::vector<SentMessage> TakeSentMessages()
{
    std::vector<SentMessage> taken = std::exchange(g_sentMessages, {});
    g_sentMessages.reserve(16); // the next ones are kept without the heap, which a test may have made fail
    return taken;
}

ServiceCalls LastServiceCalls()
{
    return g_serviceCalls;
}

// The linker sends the call of a wrapped name to "__wrap_" and that name, and "__real_" and that name to the call.
// NOLINTBEGIN(readability-inconsistent-declaration-parameter-name)
#define WRAPPED(name) __asm__("__wrap_" name)
#define REAL(name) __asm__("__real_" name)

// NOLINTBEGIN(bugprone-macro-parentheses): types and lists of arguments
// A call of the system that fails with -1, or another result, and errno. ARGUMENT is what an action is given.
#define FAILING_CALL(call, name, Result, failure, parameters, arguments, argument)                                     \
    Result Real##call parameters REAL(name);                                                                           \
    Result Wrapped##call parameters WRAPPED(name);                                                                     \
    Result Wrapped##call parameters                                                                                    \
    {                                                                                                                  \
        return FailsWithErrno(Call::call, argument) ? failure : Real##call arguments;                                  \
    }
// The same for one that has two names, the second where the sizes of files have 64 bits.
#define FAILING_CALLS(call, name, Result, failure, parameters, arguments, argument)                                    \
    FAILING_CALL(call, name, Result, failure, parameters, arguments, argument)                                         \
    Result Real64##call parameters REAL(name "64");                                                                    \
    Result Wrapped64##call parameters WRAPPED(name "64");                                                              \
    Result Wrapped64##call parameters                                                                                  \
    {                                                                                                                  \
        return FailsWithErrno(Call::call, argument) ? failure : Real64##call arguments;                                \
    }
// NOLINTEND(bugprone-macro-parentheses)

// On a 32-bit machine, calls that are given a time of 64 bits have one name, the last.
#ifdef TEST_TIME64_NAMES
#define TIMED(name, timed) timed
#define FAILING_TIMED_CALLS(call, name, timed, Result, failure, parameters, arguments, argument)                       \
    FAILING_CALL(call, timed, Result, failure, parameters, arguments, argument)
#else
#define TIMED(name, timed) name
#define FAILING_TIMED_CALLS(call, name, timed, Result, failure, parameters, arguments, argument)                       \
    FAILING_CALLS(call, name, Result, failure, parameters, arguments, argument)
#endif

FAILING_CALL(PIPE2, "pipe2", int, -1, (int* ends, int flags), (ends, flags), flags)
FAILING_CALL(FORK, "fork", pid_t, -1, (), (), 0)
FAILING_CALL(SETPGID, "setpgid", int, -1, (pid_t pid, pid_t group), (pid, group), pid)
FAILING_CALL(GETPGID, "getpgid", pid_t, -1, (pid_t pid), (pid), pid)
FAILING_CALL(KILL, "kill", int, -1, (pid_t pid, int signal), (pid, signal), pid)
FAILING_CALL(WAITID, "waitid", int, -1, (idtype_t type, id_t id, siginfo_t* info, int options),
             (type, id, info, options), static_cast<int>(id))
FAILING_CALL(WAITPID, "waitpid", pid_t, (PlanOf(Call::WAITPID).value == 0 ? 0 : -1),
             (pid_t pid, int* status, int options), (pid, status, options), pid)
// What has more arguments in some calls than in others is given one that may not be there.
FAILING_CALLS(OPEN, "open", int, -1, (const char* path, int flags, mode_t mode), (path, flags, mode), flags)
FAILING_TIMED_CALLS(FCNTL, "fcntl", "__fcntl_time64", int, -1, (int fd, int command, void* value), (fd, command, value),
                    fd)
FAILING_CALL(PRCTL, TIMED("prctl", "__prctl_time64"), int, -1,
             (int option, unsigned long one, unsigned long two, unsigned long three, unsigned long four),
             (option, one, two, three, four), option)
FAILING_CALL(FSYNC, "fsync", int, -1, (int fd), (fd), fd)
FAILING_CALL(DLOPEN, "dlopen", void*, nullptr, (const char* path, int flags), (path, flags), flags)
FAILING_CALL(DUP3, "dup3", int, -1, (int from, int to, int flags), (from, to, flags), from)
FAILING_CALL(OPENDIR, "opendir", DIR*, nullptr, (const char* path), (path), 0)
FAILING_CALLS(READDIR, "readdir", void*, nullptr, (DIR * directory), (directory), 0)
FAILING_TIMED_CALLS(STAT, "stat", "__stat64_time64", int, -1, (const char* path, void* status), (path, status), 0)
FAILING_TIMED_CALLS(LSTAT, "lstat", "__lstat64_time64", int, -1, (const char* path, void* status), (path, status), 0)
FAILING_TIMED_CALLS(FSTATAT, "fstatat", "__fstatat64_time64", int, -1,
                    (int directory, const char* path, void* status, int flags), (directory, path, status, flags),
                    directory)
FAILING_CALL(STATX, "statx", int, -1, (int directory, const char* path, int flags, unsigned mask, void* status),
             (directory, path, flags, mask, status), directory)
FAILING_CALL(READLINK, "readlink", ssize_t, -1, (const char* path, char* target, std::size_t size),
             (path, target, size), 0)
FAILING_CALL(MKDIR, "mkdir", int, -1, (const char* path, mode_t mode), (path, mode), 0)
FAILING_CALL(CHMOD, "chmod", int, -1, (const char* path, mode_t mode), (path, mode), 0)
FAILING_CALL(UNLINK, "unlink", int, -1, (const char* path), (path), 0)
FAILING_CALL(FLOCK, "flock", int, -1, (int fd, int operation), (fd, operation), fd)
FAILING_CALL(INOTIFY_RM_WATCH, "inotify_rm_watch", int, -1, (int fd, int watch), (fd, watch), fd)
FAILING_CALLS(SET_LIMIT, "setrlimit", int, -1, (int resource, const void* limit), (resource, limit), resource)
FAILING_CALL(RAISE, "raise", int, -1, (int signal), (signal), signal)
FAILING_CALL(SIGNALFD, "signalfd", int, -1, (int fd, const sigset_t* mask, int flags), (fd, mask, flags), fd)
FAILING_CALL(TIMERFD_CREATE, "timerfd_create", int, -1, (int clock, int flags), (clock, flags), clock)
FAILING_CALL(TIMERFD_SETTIME, TIMED("timerfd_settime", "__timerfd_settime64"), int, -1,
             (int fd, int flags, const void* time, void* before), (fd, flags, time, before), fd)
FAILING_CALL(SOCKET, "socket", int, -1, (int domain, int type, int protocol), (domain, type, protocol), domain)
FAILING_CALL(BIND, "bind", int, -1, (int fd, const sockaddr* address, socklen_t size), (fd, address, size), fd)
FAILING_CALL(LISTEN, "listen", int, -1, (int fd, int backlog), (fd, backlog), fd)
FAILING_CALL(CONNECT, "connect", int, -1, (int fd, const sockaddr* address, socklen_t size), (fd, address, size), fd)
FAILING_CALL(FCHMOD, "fchmod", int, -1, (int fd, mode_t mode), (fd, mode), fd)
FAILING_CALL(ACCEPT, "accept4", int, -1, (int fd, sockaddr* address, socklen_t* size, int flags),
             (fd, address, size, flags), fd)
FAILING_CALL(GETSOCKOPT, TIMED("getsockopt", "__getsockopt64"), int, -1,
             (int fd, int level, int option, void* value, socklen_t* size), (fd, level, option, value, size), fd)
FAILING_CALL(RECV, "recv", ssize_t, -1, (int fd, void* data, std::size_t size, int flags), (fd, data, size, flags), fd)
FAILING_CALL(SEND, "send", ssize_t, -1, (int fd, const void* data, std::size_t size, int flags),
             (fd, data, size, flags), fd)
FAILING_CALL(EVENT_CONFIG_NEW, "event_config_new", void*, nullptr, (), (), 0)
FAILING_CALL(EVENT_CONFIG_SET_FLAG, "event_config_set_flag", int, -1, (void* config, int flag), (config, flag), flag)
FAILING_CALL(EVENT_BASE_NEW, "event_base_new_with_config", void*, nullptr, (const void* config), (config), 0)
FAILING_CALL(EVENT_BASE_LOOPEXIT, "event_base_loopexit", int, -1, (void* base, const timeval* time), (base, time), 0)
FAILING_CALL(EVENT_BASE_DISPATCH, "event_base_dispatch", int, -1, (void* base), (base), 0)
FAILING_CALL(EVENT_NEW, "event_new", void*, nullptr,
             (void* base, int fd, short what, void (*callback)(int, short, void*), void* argument),
             (base, fd, what, callback, argument), fd)
FAILING_CALL(EVENT_ADD, "event_add", int, -1, (void* event, const timeval* timeout), (event, timeout), 0)

ssize_t RealRead(int fd, void* data, std::size_t size) REAL("read");
ssize_t WrappedRead(int fd, void* data, std::size_t size) WRAPPED("read");
ssize_t RealWrite(int fd, const void* data, std::size_t size) REAL("write");
ssize_t WrappedWrite(int fd, const void* data, std::size_t size) WRAPPED("write");
int RealClose(int fd) REAL("close");
int WrappedClose(int fd) WRAPPED("close");
int RealNanosleep(const timespec* time, timespec* left) REAL(TIMED("nanosleep", "__nanosleep64"));
int WrappedNanosleep(const timespec* time, timespec* left) WRAPPED(TIMED("nanosleep", "__nanosleep64"));
// As a file with sizes of 64 bits calls it, which this one is.
int RealStatfs(const char* path, struct statfs* status) REAL("statfs64");
int WrappedStatfs(const char* path, struct statfs* status) WRAPPED("statfs64");
int RealSignalMask(int how, const sigset_t* mask, sigset_t* before) REAL("pthread_sigmask");
int WrappedSignalMask(int how, const sigset_t* mask, sigset_t* before) WRAPPED("pthread_sigmask");
int RealCancel(pthread_t thread) REAL("pthread_cancel");
int WrappedCancel(pthread_t thread) WRAPPED("pthread_cancel");
int RealLock(pthread_mutex_t* mutex) REAL("pthread_mutex_lock");
int WrappedLock(pthread_mutex_t* mutex) WRAPPED("pthread_mutex_lock");

// The state is a unique_ptr to a type that newer libraries keep private. A class with a destructor is passed by its
// address, and it is the caller who destroys it.
#define START_THREAD_NAME "_ZNSt6thread15_M_start_threadESt10unique_ptrINS_6_StateESt14default_deleteIS1_EEPFvvE"
void RealStartThread(std::thread* self, void* state, void (*depend)()) REAL(START_THREAD_NAME);
void WrappedStartThread(std::thread* self, void* state, void (*depend)()) WRAPPED(START_THREAD_NAME);

#define LAUNCH_NAME                                                                                                    \
    "_ZN4Poco7Process6launchERKNSt7__cxx1112basic_stringIcSt11char_traitsIcESaIcEEERKSt6vectorIS6_SaIS6_EE"
// Later versions have options as well. Whichever the framework lacks is never called, and may be missing.
Poco::ProcessHandle RealLaunch(const std::string& command, const Poco::Process::Args& arguments) REAL(LAUNCH_NAME)
    __attribute__((weak));
Poco::ProcessHandle WrappedLaunch(const std::string& command, const Poco::Process::Args& arguments)
    WRAPPED(LAUNCH_NAME);
Poco::ProcessHandle RealLaunchWith(const std::string& command, const Poco::Process::Args& arguments, int options)
    REAL(LAUNCH_NAME "i") __attribute__((weak));
Poco::ProcessHandle WrappedLaunchWith(const std::string& command, const Poco::Process::Args& arguments, int options)
    WRAPPED(LAUNCH_NAME "i");
int RealWait(const Poco::ProcessHandle* self) REAL("_ZNK4Poco13ProcessHandle4waitEv");
int WrappedWait(const Poco::ProcessHandle* self) WRAPPED("_ZNK4Poco13ProcessHandle4waitEv");

lumo_message* RealMessageNew(int flags) REAL("lumo_message_new");
lumo_message* WrappedMessageNew(int flags) WRAPPED("lumo_message_new");
void RealMessagePut(lumo_message* msg) REAL("lumo_message_put");
void WrappedMessagePut(lumo_message* msg) WRAPPED("lumo_message_put");
int RealContent(lumo_message* msg, void** data, int* length) REAL("lumo_content");
int WrappedContent(lumo_message* msg, void** data, int* length) WRAPPED("lumo_content");
int RealContentAdd(lumo_message* msg, const void* data, int length, int flags) REAL("lumo_content_add");
int WrappedContentAdd(lumo_message* msg, const void* data, int length, int flags) WRAPPED("lumo_content_add");
int RealAsyncSend(lumo_message* msg, bolt_connection* conn, int flags) REAL("lumo_message_async_send");
int WrappedAsyncSend(lumo_message* msg, bolt_connection* conn, int flags) WRAPPED("lumo_message_async_send");
int RealSprintfS(char* dest, std::size_t size, const char* format, ...) REAL("sprintf_s");
int WrappedSprintfS(char* dest, std::size_t size, const char* format, ...) WRAPPED("sprintf_s");
bolt_event_mgr* RealManagerNew(int flags) REAL("bolt_event_mgr_new");
bolt_event_mgr* WrappedManagerNew(int flags) WRAPPED("bolt_event_mgr_new");
int RealRegister(const char* service, bolt_event_mgr* mgr, const bolt_server_ops* ops, void* arg)
    REAL("bolt_server_register");
int WrappedRegister(const char* service, bolt_event_mgr* mgr, const bolt_server_ops* ops, void* arg)
    WRAPPED("bolt_server_register");
int RealRun(bolt_event_mgr* mgr, int timeout) REAL("bolt_event_mgr_run");
int WrappedRun(bolt_event_mgr* mgr, int timeout) WRAPPED("bolt_event_mgr_run");
// NOLINTEND(readability-inconsistent-declaration-parameter-name)

int WrappedStatfs(const char* path, struct statfs* status)
{
    const int result = FailsWithErrno(Call::STATFS, 0) ? -1 : RealStatfs(path, status);
    if (result == 0 && g_isOverlay) {
        status->f_type = OVERLAYFS_SUPER_MAGIC;
    }
    return result;
}

ssize_t WrappedRead(int fd, void* data, std::size_t size)
{
    return FailsWithErrno(size == 1 ? Call::READ_BYTE : Call::READ, fd) ? -1 : RealRead(fd, data, size);
}

ssize_t WrappedWrite(int fd, const void* data, std::size_t size)
{
    const Call call = size == 1 ? Call::WRITE_BYTE : Call::WRITE;
    if (!MustFail(call, fd)) {
        return RealWrite(fd, data, size);
    }
    if (PlanOf(call).value == 0) {
        return RealWrite(fd, data, size / 2);
    }
    errno = PlanOf(call).value;
    return -1;
}

int WrappedClose(int fd)
{
    const bool fails = MustFail(Call::CLOSE, fd);
    const int result = RealClose(fd);
    if (!fails) {
        return result;
    }
    errno = PlanOf(Call::CLOSE).value;
    return -1;
}

int WrappedNanosleep(const timespec* time, timespec* left)
{
    if (FailsWithErrno(Call::NANOSLEEP, 0)) {
        if (left != nullptr) {
            *left = *time;
        }
        return -1;
    }
    return g_pauses ? RealNanosleep(time, left) : 0;
}

int WrappedSignalMask(int how, const sigset_t* mask, sigset_t* before)
{
    return MustFail(Call::SIGNAL_MASK, how) ? PlanOf(Call::SIGNAL_MASK).value.load()
                                            : RealSignalMask(how, mask, before);
}

int WrappedCancel(pthread_t thread)
{
    return MustFail(Call::CANCEL_THREAD, 0) ? PlanOf(Call::CANCEL_THREAD).value.load() : RealCancel(thread);
}

int WrappedLock(pthread_mutex_t* mutex)
{
    Plan& plan = PlanOf(Call::LOCK_MUTEX);
    if (plan.count > 0 && pthread_equal(g_lockingThread, pthread_self()) != 0 && MustFail(Call::LOCK_MUTEX, 0)) {
        return plan.value;
    }
    return RealLock(mutex);
}

void WrappedStartThread(std::thread* self, void* state, void (*depend)())
{
    if (MustFail(Call::START_THREAD, 0)) {
        throw std::system_error(PlanOf(Call::START_THREAD).value, std::generic_category());
    }
    RealStartThread(self, state, depend);
}

Poco::ProcessHandle WrappedLaunch(const std::string& command, const Poco::Process::Args& arguments)
{
    if (MustFail(Call::LAUNCH, 0)) {
        throw Poco::SystemException("no launch", PlanOf(Call::LAUNCH).value);
    }
    return RealLaunch(command, arguments);
}

Poco::ProcessHandle WrappedLaunchWith(const std::string& command, const Poco::Process::Args& arguments, int options)
{
    if (MustFail(Call::LAUNCH, 0)) {
        throw Poco::SystemException("no launch", PlanOf(Call::LAUNCH).value);
    }
    return RealLaunchWith(command, arguments, options);
}

int WrappedWait(const Poco::ProcessHandle* self)
{
    if (MustFail(Call::WAIT_FOR_PROCESS, static_cast<int>(self->id()))) {
        RealWait(self); // the test leaves no dead child behind
        throw Poco::SystemException("no wait", PlanOf(Call::WAIT_FOR_PROCESS).value);
    }
    return RealWait(self);
}

lumo_message* WrappedMessageNew(int flags)
{
    return MustFail(Call::LUMO_MESSAGE_NEW, flags) ? nullptr : RealMessageNew(flags);
}

void WrappedMessagePut(lumo_message* msg)
{
    MustFail(Call::LUMO_MESSAGE_PUT, 0);
    RealMessagePut(msg);
}

int WrappedContent(lumo_message* msg, void** data, int* length)
{
    return MustFail(Call::LUMO_CONTENT, 0) ? PlanOf(Call::LUMO_CONTENT).value.load() : RealContent(msg, data, length);
}

int WrappedContentAdd(lumo_message* msg, const void* data, int length, int flags)
{
    return MustFail(Call::LUMO_CONTENT_ADD, length) ? PlanOf(Call::LUMO_CONTENT_ADD).value.load()
                                                    : RealContentAdd(msg, data, length, flags);
}

int WrappedAsyncSend(lumo_message* msg, bolt_connection* conn, int flags)
{
    if (g_sends) {
        return RealAsyncSend(msg, conn, flags);
    }
    void* data = nullptr;
    int length = 0;
    std::string content;
    if (RealContent(msg, &data, &length) == 0) {
        content.assign(static_cast<const char*>(data), static_cast<std::size_t>(length));
    }
    g_sentMessages.push_back({msg->header, content, conn, flags});
    return 0;
}

// Passed on for the one format in use, as its arguments cannot be.
int WrappedSprintfS(char* dest, std::size_t size, const char* format, ...)
{
    if (MustFail(Call::SPRINTF_S, 0)) {
        return PlanOf(Call::SPRINTF_S).value;
    }
    if (std::strcmp(format, "%s") != 0) {
        return -1;
    }
    va_list arguments;
    va_start(arguments, format);
    const char* const text = va_arg(arguments, const char*);
    va_end(arguments);
    return RealSprintfS(dest, size, "%s", text);
}

bolt_event_mgr* WrappedManagerNew(int flags)
{
    return MustFail(Call::BOLT_EVENT_MGR_NEW, flags) ? nullptr : RealManagerNew(flags);
}

int WrappedRegister(const char* service, bolt_event_mgr* mgr, const bolt_server_ops* ops, void* arg)
{
    g_serviceCalls.service = service;
    g_serviceCalls.registeredManager = mgr;
    g_serviceCalls.ops = ops;
    g_serviceCalls.argument = arg;
    return MustFail(Call::BOLT_SERVER_REGISTER, 0) ? PlanOf(Call::BOLT_SERVER_REGISTER).value.load()
                                                   : RealRegister(service, mgr, ops, arg);
}

int WrappedRun(bolt_event_mgr* mgr, int timeout)
{
    g_serviceCalls.runManager = mgr;
    g_serviceCalls.timeout = timeout;
    return MustFail(Call::BOLT_EVENT_MGR_RUN, timeout) ? PlanOf(Call::BOLT_EVENT_MGR_RUN).value.load()
                                                       : RealRun(mgr, timeout);
}
