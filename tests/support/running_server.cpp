#include "support/running_server.h"

#include "support/eventually.h"

#include <dirent.h>
#include <fcntl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <atomic>
#include <chrono>
#include <csignal>
#include <cstdlib>
#include <memory>
#include <set>
#include <stdexcept>
#include <utility>

using namespace std::chrono_literals;

namespace {

constexpr unsigned char RESPONSE = 0x80;

std::atomic<int> g_contentsWithoutNul{0};
std::atomic<int> g_connections{0};
std::atomic<int> g_repliesTaken{0};
std::atomic<bool> g_isRefusedAfterFlood{false};
std::set<int> g_descriptors;

std::set<int> OpenDescriptors()
{
    std::set<int> open;
    const std::unique_ptr<DIR, int (*)(DIR*)> directory(::opendir("/proc/self/fd"), ::closedir);
    while (const dirent* entry = ::readdir(directory.get())) {
        const int fd = static_cast<int>(std::strtol(entry->d_name, nullptr, 10));
        if (entry->d_name[0] != '.' && fd != ::dirfd(directory.get())) {
            open.insert(fd);
        }
    }
    return open;
}

int InheritedDescriptors()
{
    int inherited = 0;
    for (const int fd : OpenDescriptors()) {
        inherited += g_descriptors.count(fd) == 0 && (::fcntl(fd, F_GETFD) & FD_CLOEXEC) == 0 ? 1 : 0;
    }
    return inherited;
}

void Connected(bolt_connection* /*conn*/)
{
    ++g_connections;
}

void CheckNul(lumo_message* msg)
{
    void* data = nullptr;
    int length = 0;
    if (lumo_content(msg, &data, &length) == 0 && static_cast<const char*>(data)[length] != '\0') {
        ++g_contentsWithoutNul;
    }
}

int SendReply(bolt_connection* conn, int size)
{
    lumo_message* reply = lumo_message_new(0);
    reply->header.method = RESPONSE;
    const std::string content(static_cast<std::size_t>(size), 'b');
    lumo_content_add(reply, content.data(), size, 0);
    const int result = lumo_message_async_send(reply, conn, 0);
    lumo_message_put(reply);
    return result;
}

void Flood(bolt_connection* conn)
{
    constexpr int most = 1000;
    int taken = 0;
    while (taken < most && SendReply(conn, BIG_CONTENT) == 0) {
        ++taken;
    }
    g_repliesTaken = taken;
    g_isRefusedAfterFlood = SendReply(conn, 0) != 0;
}

void Handle(lumo_message* msg, bolt_connection* conn)
{
    CheckNul(msg);
    switch (msg->header.method) {
    case ECHO:
        msg->header.method |= RESPONSE;
        msg->header.status = 200;
        lumo_message_async_send(msg, conn, 0);
        break;
    case BIG:
        SendReply(conn, BIG_CONTENT);
        break;
    case THROW:
        throw std::runtime_error("thrown by the service");
    case THROW_INT:
        throw 5;
    case FLOOD:
        Flood(conn);
        break;
    case INSPECT:
        msg->header.status = static_cast<unsigned short>(InheritedDescriptors());
        lumo_message_async_send(msg, conn, 0);
        break;
    default:
        break;
    }
}

int Start(bolt_server* server, void* protocol)
{
    server->protocol_ops = static_cast<const bolt_protocol_ops*>(protocol);
    return 0;
}

constexpr bolt_server_ops OPS{Start, nullptr};

} // namespace

const bolt_protocol_ops g_testProtocol{Connected, Handle};

int ContentsWithoutNul()
{
    return g_contentsWithoutNul;
}

int AnnouncedConnections()
{
    return g_connections;
}

int RepliesTakenInFlood()
{
    return g_repliesTaken;
}

bool IsRefusedAfterFlood()
{
    return g_isRefusedAfterFlood;
}

void RememberDescriptors()
{
    g_descriptors = OpenDescriptors();
}

int RegisterService(const std::string& service, bolt_event_mgr* mgr, const bolt_protocol_ops& protocol)
{
    return bolt_server_register(service.c_str(), mgr, &OPS, const_cast<bolt_protocol_ops*>(&protocol));
}

void EndLoopOfThisThread()
{
    ::pthread_kill(::pthread_self(), SIGINT);
}

RunningServer::RunningServer(const std::string& service, const bolt_protocol_ops& protocol)
{
    std::promise<bool> registered;
    std::future<bool> isRegistered = registered.get_future();
    m_thread = std::thread([this, service, &protocol, promise = std::move(registered)]() mutable {
        Serve(service, protocol, std::move(promise));
    });
    m_isRegistered = isRegistered.get();
}

void RunningServer::Serve(const std::string& service, const bolt_protocol_ops& protocol, std::promise<bool> registered)
{
    bolt_event_mgr* mgr = bolt_event_mgr_new(0);
    const bool isRegistered = mgr != nullptr && RegisterService(service, mgr, protocol) == 0;
    registered.set_value(isRegistered);
    if (isRegistered) {
        m_result = bolt_event_mgr_run(mgr, -1);
    }
}

int RunningServer::End()
{
    if (m_thread.joinable()) {
        if (m_isRegistered) {
            ::pthread_kill(m_thread.native_handle(), SIGINT);
        }
        m_thread.join();
    }
    return m_result;
}

ServerProcess::ServerProcess(const std::string& service, const bolt_protocol_ops& protocol, const Steps& steps)
{
    std::array<int, 2> ready{};
    if (::pipe2(ready.data(), O_CLOEXEC) != 0) {
        throw std::runtime_error("no pipe");
    }
    m_pid = ::fork();
    if (m_pid == 0) {
        ::close(ready[0]);
        steps.first();
        bolt_event_mgr* mgr = bolt_event_mgr_new(0);
        const bool isRegistered = mgr != nullptr && RegisterService(service, mgr, protocol) == 0;
        const char word = isRegistered ? 'y' : 'n';
        if (::write(ready[1], &word, 1) != 1 || !isRegistered) {
            ::_exit(99);
        }
        ::_exit(steps.last(bolt_event_mgr_run(mgr, -1)));
    }
    ::close(ready[1]);
    char word = 'n';
    m_isRegistered = ::read(ready[0], &word, 1) == 1 && word == 'y';
    ::close(ready[0]);
}

ServerProcess::~ServerProcess()
{
    if (m_pid > 0) {
        Signal(SIGKILL);
        Wait();
    }
}

void ServerProcess::Signal(int number) const
{
    ::kill(m_pid, number);
}

int ServerProcess::Wait()
{
    int status = 0;
    if (!Eventually(20s, [&] { return ::waitpid(m_pid, &status, WNOHANG) != 0; })) {
        return -1000;
    }
    m_pid = -1;
    return WIFEXITED(status) ? WEXITSTATUS(status) : -WTERMSIG(status);
}
