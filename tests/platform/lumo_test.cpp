#include <lumo.h>

#include "support/unix_client.h"

#include <fcntl.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <array>
#include <climits>
#include <cstring>
#include <memory>
#include <string>

namespace {

constexpr int MOST_CONTENT = 65528;

struct Put {
    void operator()(lumo_message* msg) const { lumo_message_put(msg); }
};
using MessageOwner = std::unique_ptr<lumo_message, Put>;

std::string ContentOf(lumo_message* msg)
{
    void* data = nullptr;
    int length = 0;
    return lumo_content(msg, &data, &length) == 0
               ? std::string(static_cast<const char*>(data), static_cast<std::size_t>(length))
               : std::string();
}

int Add(lumo_message* msg, const std::string& text)
{
    return lumo_content_add(msg, text.data(), static_cast<int>(text.size()), 0);
}

class AMessage : public ::testing::Test {
protected:
    MessageOwner m_owner{lumo_message_new(0)};
    lumo_message* m_msg = m_owner.get();
};

class AMessageSentToADescriptor : public AMessage {
protected:
    AMessageSentToADescriptor() { EXPECT_EQ(::pipe2(m_pipe.data(), O_CLOEXEC | O_NONBLOCK), 0); }
    ~AMessageSentToADescriptor() override
    {
        ::close(m_pipe[0]);
        ::close(m_pipe[1]);
    }

    std::string Read()
    {
        std::string bytes(100000, '\0');
        const ssize_t size = ::read(m_pipe[0], bytes.data(), bytes.size());
        return size < 0 ? std::string() : bytes.substr(0, static_cast<std::size_t>(size));
    }

    std::array<int, 2> m_pipe{-1, -1};
};

} // namespace

TEST_F(AMessage, BeginsWithAZeroHeaderAndNoContent)
{
    ASSERT_NE(m_msg, nullptr);
    EXPECT_EQ(std::string(reinterpret_cast<const char*>(&m_msg->header), 8), std::string(8, '\0'));
    int untouched = 5;
    void* data = &untouched;
    int length = 77;
    EXPECT_NE(lumo_content(m_msg, &data, &length), 0);
    EXPECT_EQ(data, &untouched);
    EXPECT_EQ(length, 77);
}

TEST_F(AMessage, AppendsContentAndCountsIt)
{
    EXPECT_EQ(Add(m_msg, "one"), 0);
    EXPECT_EQ(Add(m_msg, std::string("\0two", 4)), 0);
    EXPECT_EQ(ContentOf(m_msg), std::string("one\0two", 7));
    EXPECT_EQ(m_msg->header.length, 7);
}

TEST_F(AMessage, HasANulAfterItsContentThatIsNotPartOfIt)
{
    for (const int size : {1, 15, 16, 128, 4096, MOST_CONTENT}) {
        lumo_content_clear(m_msg);
        ASSERT_EQ(Add(m_msg, std::string(static_cast<std::size_t>(size), 'x')), 0);
        void* data = nullptr;
        int length = 0;
        ASSERT_EQ(lumo_content(m_msg, &data, &length), 0);
        EXPECT_EQ(length, size);
        EXPECT_EQ(static_cast<const char*>(data)[length], '\0');
    }
}

TEST_F(AMessage, CanAppendItsOwnContent)
{
    ASSERT_EQ(Add(m_msg, "0123456789"), 0);
    for (int doubling = 0; doubling < 8; ++doubling) {
        void* data = nullptr;
        int length = 0;
        ASSERT_EQ(lumo_content(m_msg, &data, &length), 0);
        ASSERT_EQ(lumo_content_add(m_msg, data, length, 0), 0);
    }
    std::string expected;
    for (int i = 0; i < 256; ++i) {
        expected += "0123456789";
    }
    EXPECT_EQ(ContentOf(m_msg), expected);
}

TEST_F(AMessage, TakesContentUpToAFullPacket)
{
    ASSERT_EQ(Add(m_msg, std::string(MOST_CONTENT, 'x')), 0);
    EXPECT_EQ(m_msg->header.length, MOST_CONTENT);
    EXPECT_NE(Add(m_msg, "y"), 0);
    EXPECT_EQ(ContentOf(m_msg), std::string(MOST_CONTENT, 'x'));
    EXPECT_EQ(m_msg->header.length, MOST_CONTENT);
}

TEST_F(AMessage, KeepsItsContentWhenNoMoreCanBeAdded)
{
    ASSERT_EQ(Add(m_msg, "kept"), 0);
    const std::string big(MOST_CONTENT - 3, 'x');
    EXPECT_NE(Add(m_msg, big), 0);
    EXPECT_NE(lumo_content_add(m_msg, big.data(), -1, 0), 0);
    EXPECT_NE(lumo_content_add(m_msg, big.data(), INT_MIN, 0), 0);
    EXPECT_NE(lumo_content_add(m_msg, big.data(), INT_MAX, 0), 0);
    EXPECT_NE(lumo_content_add(m_msg, nullptr, 1, 0), 0);
    EXPECT_EQ(ContentOf(m_msg), "kept");
    EXPECT_EQ(m_msg->header.length, 4);
}

TEST_F(AMessage, StaysWithoutContentWhenNothingIsAdded)
{
    void* data = nullptr;
    int length = 0;
    EXPECT_EQ(lumo_content_add(m_msg, nullptr, 0, 0), 0);
    EXPECT_NE(lumo_content(m_msg, &data, &length), 0);
    EXPECT_EQ(m_msg->header.length, 0);
}

TEST_F(AMessage, LosesItsContentAndItsLengthWhenTheContentIsCleared)
{
    ASSERT_EQ(Add(m_msg, "gone"), 0);
    m_msg->header.status = 404;
    lumo_content_clear(m_msg);
    void* data = nullptr;
    int length = 0;
    EXPECT_NE(lumo_content(m_msg, &data, &length), 0);
    EXPECT_EQ(m_msg->header.length, 0);
    EXPECT_EQ(m_msg->header.status, 404);
    EXPECT_EQ(Add(m_msg, "new"), 0);
    EXPECT_EQ(ContentOf(m_msg), "new");
}

TEST_F(AMessage, KeepsItsLengthAndItsContentWhenTheHeaderIsCleared)
{
    ASSERT_EQ(Add(m_msg, "content"), 0);
    m_msg->header.kind = 1;
    m_msg->header.method = 0xFF;
    m_msg->header.uri = 2;
    m_msg->header.status = 3;
    lumo_header_clear(m_msg);
    EXPECT_EQ(m_msg->header.kind, 0);
    EXPECT_EQ(m_msg->header.method, 0);
    EXPECT_EQ(m_msg->header.uri, 0);
    EXPECT_EQ(m_msg->header.status, 0);
    EXPECT_EQ(m_msg->header.length, 7);
    EXPECT_EQ(ContentOf(m_msg), "content");
}

TEST_F(AMessage, MayBeNullWhenItIsPut)
{
    lumo_message_put(nullptr);
}

TEST_F(AMessageSentToADescriptor, IsTheHeaderAndTheContentInOnePiece)
{
    m_msg->header.kind = 0x11;
    m_msg->header.method = 0x84;
    m_msg->header.uri = 0x2233;
    m_msg->header.status = 200;
    ASSERT_EQ(Add(m_msg, "content"), 0);
    ASSERT_EQ(lumo_message_sendfd(m_msg, m_pipe[1]), 0);

    const std::string bytes = Read();
    ASSERT_EQ(bytes.size(), 15U);
    const lumo_header header = HeaderOf(bytes);
    EXPECT_EQ(header.length, 7);
    EXPECT_EQ(header.uri, 0x2233);
    EXPECT_EQ(header.status, 200);
    EXPECT_EQ(bytes[2], '\x11');
    EXPECT_EQ(bytes[3], '\x84');
    EXPECT_EQ(bytes.substr(8), "content");
}

TEST_F(AMessageSentToADescriptor, IsTheHeaderAloneWithoutContent)
{
    ASSERT_EQ(lumo_message_sendfd(m_msg, m_pipe[1]), 0);
    EXPECT_EQ(Read(), std::string(8, '\0'));
}

TEST_F(AMessageSentToADescriptor, CarriesTheTrueLengthWhenItsHeaderHasAnother)
{
    ASSERT_EQ(Add(m_msg, "content"), 0);
    m_msg->header.length = 9999;
    ASSERT_EQ(lumo_message_sendfd(m_msg, m_pipe[1]), 0);
    EXPECT_EQ(HeaderOf(Read()).length, 7);
}

TEST_F(AMessageSentToADescriptor, IsDroppedWithoutWaitingWhenTheDescriptorIsFull)
{
    ASSERT_EQ(Add(m_msg, std::string(64, 'x')), 0);
    int sent = 0;
    while (lumo_message_sendfd(m_msg, m_pipe[1]) == 0) {
        ASSERT_LT(++sent, 1000000);
    }
    EXPECT_GT(sent, 0);
    EXPECT_EQ(Read().size() % 72, 0U) << "each message is written whole";
}

TEST_F(AMessageSentToADescriptor, FailsForADescriptorThatIsNotOpen)
{
    EXPECT_NE(lumo_message_sendfd(m_msg, -1), 0);
}
