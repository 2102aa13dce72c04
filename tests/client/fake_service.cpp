#include "client/fake_service.h"

#include "support/private_mnt.h"
#include "support/process_info.h"

#include <poll.h>
#include <sys/eventfd.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/un.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cstring>
#include <stdexcept>
#include <utility>

using Common::UniqueFd;

namespace {

[[maybe_unused]] const auto* const g_privateMnt = ::testing::AddGlobalTestEnvironment(new PrivateMnt);

constexpr char SERVICE_PATH[] = "/mnt/bolt/bundlesvr.paas.kov";
constexpr std::size_t PACKET_ROOM = 128UL * 1024;

sockaddr_un ServiceAddress()
{
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    std::memcpy(address.sun_path, SERVICE_PATH, sizeof SERVICE_PATH);
    return address;
}

UniqueFd ListeningSocket(int backlog)
{
    ::mkdir("/mnt/bolt", 0755);
    ::unlink(SERVICE_PATH);
    UniqueFd listener(::socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0));
    const sockaddr_un address = ServiceAddress();
    if (::bind(listener.Get(), reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0 ||
        ::listen(listener.Get(), backlog) != 0) {
        throw std::runtime_error(std::string("no socket: ") + std::strerror(errno));
    }
    return listener;
}

std::atomic<int> g_interruptions{0};

void CountInterruption(int /*number*/)
{
    ++g_interruptions;
}

} // namespace

FakeService::FakeService(Peer peer)
    : m_peer(std::move(peer)), m_listener(ListeningSocket(SOMAXCONN)), m_end(::eventfd(0, EFD_CLOEXEC)),
      m_thread(&FakeService::Serve, this)
{}

FakeService::~FakeService()
{
    ::eventfd_write(m_end.Get(), 1);
    m_thread.join();
}

void FakeService::Serve()
{
    for (;;) {
        pollfd watched[] = {{m_end.Get(), POLLIN, 0}, {m_listener.Get(), POLLIN, 0}};
        ::poll(watched, 2, -1);
        if (watched[0].revents != 0) {
            return;
        }
        const UniqueFd connection(::accept4(m_listener.Get(), nullptr, nullptr, SOCK_CLOEXEC));
        if (connection.IsOpen()) {
            m_peer(connection.Get());
        }
    }
}

BusyService::BusyService() : m_listener(ListeningSocket(0))
{
    const sockaddr_un address = ServiceAddress();
    for (;;) {
        UniqueFd peer(::socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
        if (::connect(peer.Get(), reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0) {
            return;
        }
        m_waiting.push_back(std::move(peer));
    }
}

std::string ReceivePacket(int fd)
{
    std::vector<char> packet(PACKET_ROOM);
    const ssize_t size = ::recv(fd, packet.data(), packet.size(), 0);
    return {packet.data(), size > 0 ? static_cast<std::size_t>(size) : 0};
}

bool SendPacket(int fd, std::string_view packet)
{
    return ::send(fd, packet.data(), packet.size(), MSG_NOSIGNAL) >= 0;
}

FakeService::Peer AnswerWith(const std::string& packet)
{
    return [packet](int fd) {
        ReceivePacket(fd);
        SendPacket(fd, packet);
    };
}

std::map<int, std::string> OpenDescriptors()
{
    return ProcessOf::Descriptors(::getpid());
}

Interruptions::Interruptions()
{
    g_interruptions = 0;
    struct sigaction action {};
    action.sa_handler = CountInterruption;
    ::sigaction(SIGUSR1, &action, &m_before);

    sigevent event{};
    event.sigev_notify = SIGEV_THREAD_ID;
    event.sigev_signo = SIGUSR1;
    event._sigev_un._tid = static_cast<pid_t>(::syscall(SYS_gettid));
    ::timer_create(CLOCK_MONOTONIC, &event, &m_timer);
    constexpr timespec interval{0, 3'000'000};
    const itimerspec always{interval, interval};
    ::timer_settime(m_timer, 0, &always, nullptr);
}

Interruptions::~Interruptions()
{
    ::timer_delete(m_timer);
    ::sigaction(SIGUSR1, &m_before, nullptr);
}

int Interruptions::Count()
{
    return g_interruptions;
}
