#include "system/soak/clients.h"

#include "system/system_test.h"

#include <algorithm>
#include <iterator>
#include <utility>

using namespace std::chrono_literals;

void SoakClients::Connect(int count)
{
    for (; count > 0; --count) {
        m_clients.emplace_back(SERVICE_SOCKET);
        ASSERT_TRUE(m_clients.back().connection.IsConnected());
    }
}

void SoakClients::Send(int client, std::uint16_t status, const std::string& packet, std::function<void()> answered)
{
    Client& sender = *std::next(m_clients.begin(), client);
    sender.open.push_back({status, std::move(answered), Clock::now()});
    EXPECT_TRUE(sender.connection.Send(packet));
}

void SoakClients::SendBroken(const std::string& packet)
{
    m_broken.emplace_back(SERVICE_SOCKET);
    EXPECT_TRUE(m_broken.back().Send(packet));
}

void SoakClients::Follow()
{
    for (Client& client : m_clients) {
        while (const auto packet = client.connection.Receive(0ms)) {
            TakeReply(client, *packet);
        }
    }
    m_broken.remove_if([](const UnixClient& client) { return client.IsClosedByPeer(0ms); });
}

void SoakClients::TakeReply(Client& client, const std::string& packet)
{
    if (client.open.empty()) {
        ADD_FAILURE() << "a reply to nothing, " << HeaderOf(packet).status;
        return;
    }
    const Request request = std::move(client.open.front());
    client.open.pop_front();
    EXPECT_EQ(packet, StatusPacket(request.status)) << "the status is " << HeaderOf(packet).status;
    m_slowestReply =
        std::max(m_slowestReply, std::chrono::duration_cast<std::chrono::milliseconds>(Clock::now() - request.sent));
    if (request.answered) {
        request.answered();
    }
}

bool SoakClients::IsQuiet() const
{
    return m_broken.empty() &&
           std::all_of(m_clients.begin(), m_clients.end(), [](const Client& client) { return client.open.empty(); });
}

void SoakClients::ShowOpen() const
{
    for (const Client& client : m_clients) {
        EXPECT_TRUE(client.open.empty()) << client.open.size() << " requests without a reply";
    }
    EXPECT_TRUE(m_broken.empty()) << m_broken.size() << " connections with broken packets are still open";
}

void SoakClients::ExpectNothingUnread()
{
    for (const Client& client : m_clients) {
        const auto last = client.connection.Ask(DeletePacket("nobody"), DaemonRunner::PATIENCE);
        EXPECT_EQ(last, StatusPacket(404)) << "the next packet is another one";
        EXPECT_FALSE(client.connection.Receive(0ms));
    }
}
