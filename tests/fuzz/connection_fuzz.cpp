// The input says what a peer of the host platform's message service does, step by step (see Perform): it sends valid
// and broken packets, reads replies or not, ends in the middle. The service answers requests in their order until the
// peer breaks a rule, which ends its own connection only: another one is served as before.
#include "fuzz/fuzz_target.h"

#include "common/wire.h"
#include "support/private_mnt.h"
#include "support/unix_client.h"

#include <bolt.h>
#include <bundle_service.h>
#include <lumo.h>

#include <fcntl.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <deque>
#include <iostream>
#include <memory>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

namespace {

using Common::HEADER_SIZE;
using Common::MAX_PACKET_SIZE;
using SystemServer::BundleService::RESPONSE_FLAG;
using SystemServer::BundleService::STATUS_OK;

constexpr char SERVICE[] = "fuzzed.service";
constexpr std::size_t MOST_UNREAD = std::size_t{1024} * 1024;
constexpr std::uint8_t METHOD_THROW = 3;

/// Sends a request back, with a status; or throws.
void Serve(lumo_message* msg, bolt_connection* conn)
{
    void* data = nullptr;
    int length = 0;
    if (lumo_content(msg, &data, &length) == 0) {
        Require(static_cast<const char*>(data)[length] == '\0', "no NUL stands behind a content");
    }
    if (msg->header.method == METHOD_THROW) {
        throw std::runtime_error("a fault of the service");
    }
    msg->header.method |= RESPONSE_FLAG;
    msg->header.status = STATUS_OK;
    lumo_message_async_send(msg, conn, 0);
}

std::string ReplyTo(const std::string& packet)
{
    lumo_header header = HeaderOf(packet);
    header.method |= RESPONSE_FLAG;
    header.status = STATUS_OK;
    return PacketOf(header, std::string_view(packet).substr(HEADER_SIZE));
}

/// A service on this thread, for the whole process, and a peer that keeps the rules.
class Service {
public:
    Service() : m_manager(bolt_event_mgr_new(0))
    {
        static const bolt_protocol_ops protocol{nullptr, Serve};
        static const bolt_server_ops ops{[](bolt_server* server, void* /*arg*/) {
                                             server->protocol_ops = &protocol;
                                             return 0;
                                         },
                                         nullptr};
        Require(m_manager != nullptr && bolt_server_register(SERVICE, m_manager, &ops, nullptr) == 0,
                "the service cannot be registered");
        m_witness = std::make_unique<UnixClient>(Path());
        RequireThatOthersAreServed(); // so that it has been accepted
    }

    static std::string Path() { return std::string("/mnt/bolt/") + SERVICE; }

    /// Runs that many rounds of the loop. Each round reads one packet of each peer.
    void Run(std::size_t rounds)
    {
        for (std::size_t i = 0; i < rounds; ++i) {
            Require(bolt_event_mgr_run(m_manager, 0) == 0, "the loop has failed");
        }
    }

    void RequireThatOthersAreServed()
    {
        const std::string request = PacketOf(1, 0, "witness");
        Require(m_witness->SendWithoutWaiting(request), "another connection is not read");
        Run(3);
        std::string reply(MAX_PACKET_SIZE, '\0');
        const ssize_t size = ::recv(m_witness->Fd(), reply.data(), reply.size(), MSG_DONTWAIT);
        Require(size > 0 && reply.substr(0, static_cast<std::size_t>(size)) == ReplyTo(request),
                "another connection is not served");
    }

private:
    bolt_event_mgr* const m_manager;
    std::unique_ptr<UnixClient> m_witness;
};

/// The two lowest free descriptors: a new peer's and that of its connection in the service.
std::pair<int, int> FreeDescriptors()
{
    const int first = ::fcntl(STDERR_FILENO, F_DUPFD_CLOEXEC, 0);
    const int second = ::fcntl(STDERR_FILENO, F_DUPFD_CLOEXEC, 0);
    ::close(first);
    ::close(second);
    return {first, second};
}

/// The peer, and what it must receive.
class Peer {
public:
    explicit Peer(Service& service) : m_service(service), m_client(Service::Path())
    {
        Require(m_client.IsConnected(), "nobody is admitted any more");
    }

    void Send(const std::string& packet)
    {
        if (!m_client.SendWithoutWaiting(packet)) {
            return;
        }
        ++m_sent;
        if (m_isEnding || m_isBroken) {
            return;
        }
        if (packet.empty()) {
            m_isEnding = true; // cannot be told from the peer's end
        } else if (!IsSound(packet) || HeaderOf(packet).method == METHOD_THROW) {
            m_isBroken = true;
        } else {
            m_unread += packet.size();
            m_mayBeTooMuch = m_mayBeTooMuch || m_unread > MOST_UNREAD;
            m_expected.push_back(ReplyTo(packet));
        }
    }

    void ShutDownSending()
    {
        m_client.ShutDownSending();
        m_isEnding = true;
    }

    /// Receives up to that many replies.
    void Receive(std::size_t count)
    {
        static std::vector<char> buffer(MAX_PACKET_SIZE + 1);
        for (std::size_t i = 0; i < count; ++i) {
            const ssize_t size = ::recv(m_client.Fd(), buffer.data(), buffer.size(), MSG_DONTWAIT);
            if (size <= 0) {
                m_isClosed = m_isClosed || size == 0 || errno != EAGAIN;
                return;
            }
            const std::string_view reply(buffer.data(), static_cast<std::size_t>(size));
            Require(!m_expected.empty() && reply == m_expected.front(), "a reply is not that of the next request");
            m_unread -= reply.size();
            m_expected.pop_front();
        }
    }

    /// Receives all remaining replies.
    void Finish()
    {
        for (std::size_t round = 0; round < m_sent + 4; ++round) {
            m_service.Run(1);
            Receive(m_sent + 1); // the last to see the end
        }
        Require(m_expected.empty() || m_isBroken || m_mayBeTooMuch, "a request is not answered");
        Require(m_isClosed || !(m_isEnding || m_isBroken), "a connection that is over is not closed");
        Require(!m_isClosed || m_isEnding || m_isBroken || m_mayBeTooMuch, "a connection is closed for nothing");
    }

private:
    static bool IsSound(const std::string& packet)
    {
        return packet.size() >= HEADER_SIZE && packet.size() <= MAX_PACKET_SIZE &&
               HeaderOf(packet).length == packet.size() - HEADER_SIZE;
    }

    Service& m_service;
    const UnixClient m_client;
    std::deque<std::string> m_expected; ///< the replies, in their order
    std::size_t m_sent = 0;
    std::size_t m_unread = 0; ///< bytes of the replies to what has been sent
    bool m_isEnding = false;
    bool m_isBroken = false;
    bool m_mayBeTooMuch = false;
    bool m_isClosed = false;
};

/// The input, byte by byte. After its end come zeros.
class Steps {
public:
    Steps(const std::uint8_t* data, std::size_t size) : m_at(data), m_left(size) {}

    bool HasMore() const { return m_left > 0; }
    unsigned Take()
    {
        if (m_left == 0) {
            return 0;
        }
        --m_left;
        return *m_at++;
    }
    std::string TakeText(std::size_t length)
    {
        const std::size_t size = std::min(length, m_left);
        std::string text(m_at, m_at + size);
        m_at += size;
        m_left -= size;
        return text;
    }

private:
    const std::uint8_t* m_at;
    std::size_t m_left;
};

/// One step: a byte that says what, and bytes that say how much.
void Perform(Steps& steps, Service& service, Peer& peer)
{
    switch (steps.Take() % 7) {
    case 0: // a request with a content of that many times 256 bytes and that many more
    {
        const std::size_t many = std::size_t{256} * steps.Take();
        peer.Send(PacketOf(1, 0, std::string(std::min(many + steps.Take(), MAX_PACKET_SIZE - HEADER_SIZE), 'c')));
        return;
    }
    case 1: // these bytes as a packet
        peer.Send(steps.TakeText(steps.Take()));
        return;
    case 2: // these bytes as a request's content
    {
        const auto method = static_cast<std::uint8_t>(steps.Take());
        peer.Send(PacketOf(method, 0, steps.TakeText(steps.Take())));
        return;
    }
    case 3:
        service.Run(steps.Take());
        return;
    case 4:
        peer.Receive(steps.Take());
        return;
    case 5:
        peer.ShutDownSending();
        return;
    default: // that many long requests, each of them read
        for (unsigned i = steps.Take() % 32; i > 0; --i) {
            peer.Send(PacketOf(1, 0, std::string(60000, 'd')));
            service.Run(2);
        }
    }
}

} // namespace

int LLVMFuzzerInitialize(int* /*argc*/, char*** /*argv*/)
{
    const std::string reason = EnterPrivateMnt();
    std::cerr << reason;
    Require(reason.empty(), "the service needs a /mnt of its own");
    return 0;
}

int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size)
{
    static Service service;
    constexpr int most = 64; // steps: a longer input says nothing new
    const auto before = FreeDescriptors();
    {
        Peer peer(service);
        Steps steps(data, size);
        for (int i = 0; i < most && steps.HasMore(); ++i) {
            Perform(steps, service, peer);
        }
        peer.Finish();
    }
    service.Run(3);
    Require(FreeDescriptors() == before, "descriptors are left open");
    service.RequireThatOthersAreServed();
    return 0;
}
