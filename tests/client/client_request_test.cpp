#include "client/fake_service.h"
#include "support/packets.h"

#include <bundle_client.h>

#include <unistd.h>

#include <gtest/gtest.h>

#include <chrono>
#include <set>
#include <string>

namespace {

/// Longer than any answer takes on a machine that is very busy.
constexpr int LONG = 60000;

} // namespace

TEST(AClientThatAsks, IsToldWhoServes)
{
    pid_t process = -1;
    EXPECT_EQ(bundle_client_server(LONG, &process), BUNDLE_CLIENT_UNREACHABLE);
    EXPECT_EQ(process, -1);
    const FakeService service([](int fd) { EXPECT_EQ(ReceivePacket(fd), "") << "nothing is asked"; });
    EXPECT_EQ(bundle_client_server(LONG, &process), BUNDLE_CLIENT_OK);
    EXPECT_EQ(process, ::getpid());
    EXPECT_EQ(bundle_client_server(LONG, nullptr), BUNDLE_CLIENT_OK);
}

TEST(AClientThatAsks, WaitsForTheServersQueueAsLongAsItsLimit)
{
    const BusyService service;
    const auto start = std::chrono::steady_clock::now();
    EXPECT_EQ(bundle_client_server(100, nullptr), BUNDLE_CLIENT_TIMEOUT);
    EXPECT_GE(std::chrono::steady_clock::now() - start, std::chrono::milliseconds(100));
}

TEST(AClientThatAsks, ReturnsAnyStatus)
{
    std::string request;
    unsigned status = 0;
    {
        const FakeService service([&request](int fd) {
            request = ReceivePacket(fd);
            SendPacket(fd, StatusPacket(503));
        });
        EXPECT_EQ(bundle_client_request(9, "content", 7, LONG, &status), BUNDLE_CLIENT_OK);
    }
    EXPECT_EQ(status, 503U);
    EXPECT_EQ(request, PacketOf(9, 0, "content"));
}

TEST(AClientThatAsks, MayHaveNoContentOrTheLongest)
{
    std::string request;
    const auto answer = [&request](int fd) {
        request = ReceivePacket(fd);
        SendPacket(fd, StatusPacket(200));
    };
    {
        const FakeService service(answer);
        EXPECT_EQ(bundle_client_request(1, nullptr, 0, LONG, nullptr), BUNDLE_CLIENT_OK);
    }
    EXPECT_EQ(request, PacketOf(1, 0, ""));
    const std::string longest(65528, 'c');
    {
        const FakeService service(answer);
        EXPECT_EQ(bundle_client_request(1, longest.data(), longest.size(), LONG, nullptr), BUNDLE_CLIENT_OK);
    }
    EXPECT_EQ(request, PacketOf(1, 0, longest));
}

TEST(AClientThatAsks, IsRefusedWhenItDoesNotFitTheWire)
{
    const std::string tooLong(65529, 'c');
    unsigned status = 7;
    EXPECT_EQ(bundle_client_request(128, "", 0, LONG, &status), BUNDLE_CLIENT_INVALID);
    EXPECT_EQ(bundle_client_request(4, tooLong.data(), tooLong.size(), LONG, &status), BUNDLE_CLIENT_INVALID);
    EXPECT_EQ(bundle_client_request(4, nullptr, 1, LONG, &status), BUNDLE_CLIENT_INVALID);
    EXPECT_EQ(status, 7U);
}

TEST(AClientsCode, HasATextOfItsOwn)
{
    std::set<std::string> texts;
    for (int code = BUNDLE_CLIENT_OK; code <= BUNDLE_CLIENT_SYSTEM; ++code) {
        texts.insert(bundle_client_text(code));
    }
    EXPECT_EQ(texts.size(), static_cast<std::size_t>(BUNDLE_CLIENT_SYSTEM) + 1);
    for (const int code : {-1, BUNDLE_CLIENT_SYSTEM + 1, 1000000, -1000000}) {
        EXPECT_STREQ(bundle_client_text(code), "an unknown code");
    }
    EXPECT_EQ(texts.count("an unknown code"), 0U);
}

TEST(AClient, KnowsTheVersionOfItsLibrary)
{
    EXPECT_STREQ(bundle_client_version(), PROJECT_VERSION);
}
