#include "platform/host/ipc/packet_queue.h"

#include "support/unix_client.h"

#include <gtest/gtest.h>

#include <string>

using HostPlatform::PacketQueue;

namespace {

constexpr std::size_t MOST = 1024UL * 1024;

std::string Packet(std::size_t number, std::size_t contentSize)
{
    return PacketOf(static_cast<std::uint8_t>(number % 128), static_cast<std::uint16_t>(number),
                    std::string(contentSize, static_cast<char>('a' + number % 26)));
}

} // namespace

TEST(PacketsThatWait, ComeOutAsTheyWentInAndInTheirOrder)
{
    PacketQueue queue;
    EXPECT_TRUE(queue.IsEmpty());
    for (std::size_t i = 0; i < 100; ++i) {
        queue.Append(Packet(i, i * 17));
    }
    for (std::size_t i = 0; i < 100; ++i) {
        ASSERT_FALSE(queue.IsEmpty());
        ASSERT_EQ(queue.First(), Packet(i, i * 17));
        queue.RemoveFirst();
    }
    EXPECT_TRUE(queue.IsEmpty());
}

TEST(PacketsThatWait, AreLimitedToAMebibyteAfterAnyNumberOfSentOnes)
{
    PacketQueue queue;
    std::size_t in = 0;
    std::size_t out = 0;
    for (int round = 0; round < 50; ++round) {
        for (std::size_t size = 0; queue.HasRoomFor(8 + size); size = (size + 4099) % 65529) {
            queue.Append(Packet(in++, size % 100));
        }
        EXPECT_FALSE(queue.HasRoomFor(MOST));
        while (out + 10 < in) {
            ASSERT_EQ(HeaderOf(queue.First()).uri, static_cast<std::uint16_t>(out));
            queue.RemoveFirst();
            ++out;
        }
    }
    queue.Clear();
    EXPECT_TRUE(queue.IsEmpty());
    EXPECT_TRUE(queue.HasRoomFor(MOST));
    EXPECT_FALSE(queue.HasRoomFor(MOST + 1));
}
