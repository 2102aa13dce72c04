#include "support/fault.h"

#include <sprintf_s.h>

#include <Poco/Exception.h>
#include <Poco/Process.h>

#include <pthread.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <atomic>
#include <cerrno>
#include <csignal>
#include <cstdarg>
#include <cstring>
#include <memory>
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

Fault::Fault(Call call, int value, int count, int after) : m_call(call)
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
    return std::exchange(g_sentMessages, {});
}

ServiceCalls LastServiceCalls()
{
    return g_serviceCalls;
}

// The linker sends the call of a wrapped name to "__wrap_" and that name, and "__real_" and that name to the call.
// NOLINTBEGIN(readability-inconsistent-declaration-parameter-name)
#define WRAPPED(name) __asm__("__wrap_" name)
#define REAL(name) __asm__("__real_" name)

int RealPipe2(int* ends, int flags) REAL("pipe2");
int WrappedPipe2(int* ends, int flags) WRAPPED("pipe2");
pid_t RealFork() REAL("fork");
pid_t WrappedFork() WRAPPED("fork");
int RealSetpgid(pid_t pid, pid_t group) REAL("setpgid");
int WrappedSetpgid(pid_t pid, pid_t group) WRAPPED("setpgid");
pid_t RealGetpgid(pid_t pid) REAL("getpgid");
pid_t WrappedGetpgid(pid_t pid) WRAPPED("getpgid");
int RealKill(pid_t pid, int signal) REAL("kill");
int WrappedKill(pid_t pid, int signal) WRAPPED("kill");
int RealWaitid(idtype_t type, id_t id, siginfo_t* info, int options) REAL("waitid");
int WrappedWaitid(idtype_t type, id_t id, siginfo_t* info, int options) WRAPPED("waitid");
pid_t RealWaitpid(pid_t pid, int* status, int options) REAL("waitpid");
pid_t WrappedWaitpid(pid_t pid, int* status, int options) WRAPPED("waitpid");
ssize_t RealRead(int fd, void* data, std::size_t size) REAL("read");
ssize_t WrappedRead(int fd, void* data, std::size_t size) WRAPPED("read");
ssize_t RealWrite(int fd, const void* data, std::size_t size) REAL("write");
ssize_t WrappedWrite(int fd, const void* data, std::size_t size) WRAPPED("write");
int RealCancel(pthread_t thread) REAL("pthread_cancel");
int WrappedCancel(pthread_t thread) WRAPPED("pthread_cancel");
int RealLock(pthread_mutex_t* mutex) REAL("pthread_mutex_lock");
int WrappedLock(pthread_mutex_t* mutex) WRAPPED("pthread_mutex_lock");

using ThreadState = std::unique_ptr<std::thread::_State>;
#define START_THREAD_NAME "_ZNSt6thread15_M_start_threadESt10unique_ptrINS_6_StateESt14default_deleteIS1_EEPFvvE"
void RealStartThread(std::thread* self, ThreadState state, void (*depend)()) REAL(START_THREAD_NAME);
void WrappedStartThread(std::thread* self, ThreadState state, void (*depend)()) WRAPPED(START_THREAD_NAME);

#define LAUNCH_NAME                                                                                                    \
    "_ZN4Poco7Process6launchERKNSt7__cxx1112basic_stringIcSt11char_traitsIcESaIcEEERKSt6vectorIS6_SaIS6_EE"
Poco::ProcessHandle RealLaunch(const std::string& command, const Poco::Process::Args& arguments) REAL(LAUNCH_NAME);
Poco::ProcessHandle WrappedLaunch(const std::string& command, const Poco::Process::Args& arguments)
    WRAPPED(LAUNCH_NAME);
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

int WrappedPipe2(int* ends, int flags)
{
    return FailsWithErrno(Call::PIPE2, flags) ? -1 : RealPipe2(ends, flags);
}

pid_t WrappedFork()
{
    return FailsWithErrno(Call::FORK, 0) ? -1 : RealFork();
}

int WrappedSetpgid(pid_t pid, pid_t group)
{
    return FailsWithErrno(Call::SETPGID, pid) ? -1 : RealSetpgid(pid, group);
}

pid_t WrappedGetpgid(pid_t pid)
{
    return FailsWithErrno(Call::GETPGID, pid) ? -1 : RealGetpgid(pid);
}

int WrappedKill(pid_t pid, int signal)
{
    return FailsWithErrno(Call::KILL, pid) ? -1 : RealKill(pid, signal);
}

int WrappedWaitid(idtype_t type, id_t id, siginfo_t* info, int options)
{
    return FailsWithErrno(Call::WAITID, static_cast<int>(id)) ? -1 : RealWaitid(type, id, info, options);
}

pid_t WrappedWaitpid(pid_t pid, int* status, int options)
{
    return FailsWithErrno(Call::WAITPID, pid) ? -1 : RealWaitpid(pid, status, options);
}

ssize_t WrappedRead(int fd, void* data, std::size_t size)
{
    return size == 1 && FailsWithErrno(Call::READ_BYTE, fd) ? -1 : RealRead(fd, data, size);
}

ssize_t WrappedWrite(int fd, const void* data, std::size_t size)
{
    return size == 1 && FailsWithErrno(Call::WRITE_BYTE, fd) ? -1 : RealWrite(fd, data, size);
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

void WrappedStartThread(std::thread* self, ThreadState state, void (*depend)())
{
    if (MustFail(Call::START_THREAD, 0)) {
        throw std::system_error(PlanOf(Call::START_THREAD).value, std::generic_category());
    }
    RealStartThread(self, std::move(state), depend);
}

Poco::ProcessHandle WrappedLaunch(const std::string& command, const Poco::Process::Args& arguments)
{
    if (MustFail(Call::LAUNCH, 0)) {
        throw Poco::SystemException("no launch", PlanOf(Call::LAUNCH).value);
    }
    return RealLaunch(command, arguments);
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
