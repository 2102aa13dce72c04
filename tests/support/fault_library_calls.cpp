// Replaces calls of the C++ library, the framework, libevent and the platform: see fault.h.

#include "support/fault.h"
#include "support/fault_wrap.h"

#include <sprintf_s.h>

#include <Poco/Exception.h>
#include <Poco/Process.h>

#include <sys/time.h>

#include <atomic>
#include <cstdarg>
#include <cstddef>
#include <cstring>
#include <mutex>
#include <system_error>
#include <thread>
#include <utility>

namespace {

std::atomic<bool> g_sends{false};
std::vector<SentMessage> g_sentMessages;
std::mutex g_serviceMutex;
ServiceCalls g_serviceCalls; // under that mutex: a test may run several services

} // namespace

RealSending::RealSending()
{
    g_sends = true;
}

RealSending::~RealSending()
{
    g_sends = false;
}

std::vector<SentMessage> TakeSentMessages()
{
    std::vector<SentMessage> taken = std::exchange(g_sentMessages, {});
    g_sentMessages.reserve(16); // later messages need no heap, which a test may make fail
    return taken;
}

ServiceCalls LastServiceCalls()
{
    const std::lock_guard<std::mutex> lock(g_serviceMutex);
    return g_serviceCalls;
}

FAILING_CALL(EVENT_CONFIG_NEW, "event_config_new", void*, nullptr, (), (), 0)
FAILING_CALL(EVENT_CONFIG_SET_FLAG, "event_config_set_flag", int, -1, (void* config, int flag), (config, flag), flag)
FAILING_CALL(EVENT_BASE_NEW, "event_base_new_with_config", void*, nullptr, (const void* config), (config), 0)
FAILING_CALL(EVENT_BASE_LOOPEXIT, "event_base_loopexit", int, -1, (void* base, const timeval* time), (base, time), 0)
FAILING_CALL(EVENT_BASE_DISPATCH, "event_base_dispatch", int, -1, (void* base), (base), 0)
FAILING_CALL(EVENT_NEW, "event_new", void*, nullptr,
             (void* base, int fd, short what, void (*callback)(int, short, void*), void* argument),
             (base, fd, what, callback, argument), fd)
FAILING_CALL(EVENT_ADD, "event_add", int, -1, (void* event, const timeval* timeout), (event, timeout), 0)

// The state is a unique_ptr to a type that is private in newer libraries. A class with a destructor is passed by
// address, and the caller destroys it.
#define START_THREAD_NAME "_ZNSt6thread15_M_start_threadESt10unique_ptrINS_6_StateESt14default_deleteIS1_EEPFvvE"
void RealStartThread(std::thread* self, void* state, void (*depend)()) REAL(START_THREAD_NAME);
void WrappedStartThread(std::thread* self, void* state, void (*depend)()) WRAPPED(START_THREAD_NAME);

#define LAUNCH_NAME                                                                                                    \
    "_ZN4Poco7Process6launchERKNSt7__cxx1112basic_stringIcSt11char_traitsIcESaIcEEERKSt6vectorIS6_SaIS6_EE"
// Later versions of the framework have an options parameter too. The version that the framework lacks is never called,
// so its symbol may be missing.
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

void WrappedStartThread(std::thread* self, void* state, void (*depend)())
{
    if (MustFail(Call::START_THREAD, 0)) {
        throw std::system_error(FaultValue(Call::START_THREAD), std::generic_category());
    }
    RealStartThread(self, state, depend);
}

Poco::ProcessHandle WrappedLaunch(const std::string& command, const Poco::Process::Args& arguments)
{
    if (MustFail(Call::LAUNCH, 0)) {
        throw Poco::SystemException("no launch", FaultValue(Call::LAUNCH));
    }
    return RealLaunch(command, arguments);
}

Poco::ProcessHandle WrappedLaunchWith(const std::string& command, const Poco::Process::Args& arguments, int options)
{
    if (MustFail(Call::LAUNCH, 0)) {
        throw Poco::SystemException("no launch", FaultValue(Call::LAUNCH));
    }
    return RealLaunchWith(command, arguments, options);
}

int WrappedWait(const Poco::ProcessHandle* self)
{
    if (MustFail(Call::WAIT_FOR_PROCESS, static_cast<int>(self->id()))) {
        RealWait(self); // reaps the child, so that the test leaves none behind
        throw Poco::SystemException("no wait", FaultValue(Call::WAIT_FOR_PROCESS));
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
    return MustFail(Call::LUMO_CONTENT, 0) ? FaultValue(Call::LUMO_CONTENT) : RealContent(msg, data, length);
}

int WrappedContentAdd(lumo_message* msg, const void* data, int length, int flags)
{
    return MustFail(Call::LUMO_CONTENT_ADD, length) ? FaultValue(Call::LUMO_CONTENT_ADD)
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

// Passes on the one format in use, because variable arguments cannot be passed on.
int WrappedSprintfS(char* dest, std::size_t size, const char* format, ...)
{
    if (MustFail(Call::SPRINTF_S, 0)) {
        return FaultValue(Call::SPRINTF_S);
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
    {
        const std::lock_guard<std::mutex> lock(g_serviceMutex);
        g_serviceCalls.service = service;
        g_serviceCalls.registeredManager = mgr;
        g_serviceCalls.ops = ops;
        g_serviceCalls.argument = arg;
    }
    return MustFail(Call::BOLT_SERVER_REGISTER, 0) ? FaultValue(Call::BOLT_SERVER_REGISTER)
                                                   : RealRegister(service, mgr, ops, arg);
}

int WrappedRun(bolt_event_mgr* mgr, int timeout)
{
    {
        const std::lock_guard<std::mutex> lock(g_serviceMutex);
        g_serviceCalls.runManager = mgr;
        g_serviceCalls.timeout = timeout;
    }
    return MustFail(Call::BOLT_EVENT_MGR_RUN, timeout) ? FaultValue(Call::BOLT_EVENT_MGR_RUN) : RealRun(mgr, timeout);
}
