#include "platform/host/ipc/packet.h"

#include "support/unix_client.h"

#include <gtest/gtest.h>

#include <string>

using HostPlatform::MAX_PACKET_SIZE;
using HostPlatform::MessageOfPacket;
using HostPlatform::MessageReference;
using HostPlatform::PacketFault;

namespace {

bool IsSound(const std::string& packet)
{
    return PacketFault(packet.data(), packet.size()) == nullptr;
}

} // namespace

TEST(APacket, IsValidWhenItsLengthFieldIsItsContentsLength)
{
    EXPECT_TRUE(IsSound(PacketOf(1, 0, "")));
    EXPECT_TRUE(IsSound(PacketOf(1, 0, "x")));
    EXPECT_TRUE(IsSound(PacketOf(1, 0, std::string(MAX_PACKET_SIZE - 8, 'x'))));
}

TEST(APacket, IsBrokenWhenItIsShorterThanAHeader)
{
    for (std::size_t size = 0; size < 8; ++size) {
        EXPECT_FALSE(IsSound(std::string(size, '\0')));
    }
}

TEST(APacket, IsBrokenWhenItIsLongerThanSixtyFourKibibytes)
{
    // Its length field has 16 bits, so it looks right.
    EXPECT_FALSE(IsSound(std::string(MAX_PACKET_SIZE + 8, '\0')));
    EXPECT_FALSE(IsSound(PacketOf(1, 0, std::string(MAX_PACKET_SIZE - 7, 'x'))));
}

TEST(APacket, IsBrokenWhenItsLengthFieldIsWrong)
{
    EXPECT_FALSE(IsSound(PacketOf(1, 0, "content") + "x"));
    const std::string packet = PacketOf(1, 0, "content");
    EXPECT_FALSE(IsSound(packet.substr(0, packet.size() - 1)));
}

TEST(APacket, BecomesAMessageWithItsHeaderAndItsContent)
{
    const std::string packet = PacketOf(0x84, 77, std::string("a\0b", 3));
    const MessageReference msg = MessageOfPacket(packet.data(), packet.size());
    ASSERT_TRUE(msg);
    EXPECT_EQ(msg->header.method, 0x84);
    EXPECT_EQ(msg->header.uri, 77);
    void* data = nullptr;
    int length = 0;
    ASSERT_EQ(lumo_content(msg.get(), &data, &length), 0);
    EXPECT_EQ(std::string(static_cast<const char*>(data), 3), std::string("a\0b", 3));
    EXPECT_EQ(length, 3);
    EXPECT_EQ(static_cast<const char*>(data)[3], '\0');
}
