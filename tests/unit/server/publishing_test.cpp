#include <algapp_bolt_comm.h>

#include "bundle_server.h"
#include "support/event_fifo.h"
#include "support/fault.h"
#include "support/log_capture.h"
#include "support/own_process.h"

#include <gtest/gtest.h>

#include <cstring>
#include <optional>
#include <string>
#include <vector>

namespace {

/// Publishing to an event service of the test. The program has a /mnt of its own.
class PublishingAnEvent : public ::testing::Test {
public:
    ~PublishingAnEvent() override
    {
        m_listener.reset();
        EXPECT_EQ(puts.Count(), news.Count()) << "a message is leaked";
        EXPECT_EQ(OwnProcess::Descriptors(), m_descriptorsBefore) << "a descriptor is leaked";
    }

    void Listen() { m_listener.emplace(); }
    std::string Received() const { return m_listener->Received(); }

    /// The texts of the log. Each must be an error record of the shared header.
    std::vector<std::string> Errors() const
    {
        for (const LogRecord& record : log.Records()) {
            EXPECT_EQ(record.level, "ERROR") << record.message;
            EXPECT_EQ(record.module, 4) << record.message;
            EXPECT_EQ(record.flag, 1) << record.message;
            EXPECT_EQ(record.source.rfind("public/include/algapp_bolt_comm.h:", 0), 0U) << record.source;
        }
        return log.Messages();
    }

    CallCounter news{Call::LUMO_MESSAGE_NEW};
    CallCounter puts{Call::LUMO_MESSAGE_PUT};
    LogCapture log;

private:
    std::optional<EventFifo> m_listener;
    const int m_descriptorsBefore = OwnProcess::Descriptors();
};

using Texts = std::vector<std::string>;

std::string Field(const std::string& name, std::size_t size)
{
    return name + std::string(size - name.size(), '\0');
}

} // namespace

TEST_F(PublishingAnEvent, SendsOneRecordWithAHeader)
{
    Listen();
    SystemServer::PublishDeleteMsg();
    const std::string packet = Received();
    ASSERT_EQ(packet.size(), 8U + 64U);
    lumo_header header{};
    std::memcpy(&header, packet.data(), sizeof header);
    EXPECT_EQ(header.length, 64);
    EXPECT_EQ(header.kind, 0);
    EXPECT_EQ(header.method, 1);
    EXPECT_EQ(header.uri, 0);
    EXPECT_EQ(header.status, 0);
    EXPECT_EQ(packet.substr(8), Field("bundle_service", 16) + Field("app.event.init", 16) + std::string(32, '\0'));
    EXPECT_TRUE(log.Messages().empty());
}

TEST_F(PublishingAnEvent, TakesNamesOfFifteenCharacters)
{
    Listen();
    SystemServer::PublishEvent("publisher567890", "event6789012345");
    EXPECT_EQ(Received().substr(8),
              Field("publisher567890", 16) + Field("event6789012345", 16) + std::string(32, '\0'));
}

TEST_F(PublishingAnEvent, RefusesLongerNames)
{
    Listen();
    SystemServer::PublishEvent("publisher", "event67890123456");
    ASSERT_EQ(Errors().size(), 1U);
    EXPECT_EQ(Errors()[0].rfind("Failed to sprint event event67890123456 errorNo -", 0), 0U) << Errors()[0];
    log.Restart();
    SystemServer::PublishEvent("publisher5678901", "event");
    EXPECT_EQ(Errors(), Texts{"Failed to sprint publisher publisher5678901"});
    EXPECT_EQ(Received(), "");
}

TEST_F(PublishingAnEvent, EndsWhenTheEventsNameCannotBeWritten)
{
    Listen();
    for (const int result : {-1, 13, 15, 0}) {
        log.Restart();
        const Fault fault(Call::SPRINTF_S, result);
        SystemServer::PublishDeleteMsg();
        EXPECT_EQ(Errors(),
                  Texts{"Failed to sprint event app.event.init errorNo " + std::to_string(result) + " event is 15"});
    }
    EXPECT_EQ(Received(), "");
}

TEST_F(PublishingAnEvent, EndsWhenThePublishersNameCannotBeWritten)
{
    Listen();
    for (const int result : {-1, 13, 15, 0}) {
        log.Restart();
        const Fault fault(Call::SPRINTF_S, result, 1, 1);
        SystemServer::PublishDeleteMsg();
        EXPECT_EQ(Errors(), Texts{"Failed to sprint publisher bundle_service"});
    }
    EXPECT_EQ(Received(), "");
}

TEST_F(PublishingAnEvent, EndsWhenThereIsNoEventService)
{
    SystemServer::PublishDeleteMsg();
    EXPECT_EQ(Errors(), Texts{"open event srv fail"});
}

TEST_F(PublishingAnEvent, EndsWhenThereIsNoMessage)
{
    Listen();
    {
        const Fault fault(Call::LUMO_MESSAGE_NEW, 0);
        SystemServer::PublishDeleteMsg();
    }
    EXPECT_EQ(Errors(), (Texts{R"(new send msg failed\n)", "SigPublish failed"}));
    EXPECT_EQ(Received(), "");
    news = CallCounter(Call::LUMO_MESSAGE_NEW);
}

TEST_F(PublishingAnEvent, EndsWhenTheMessageTakesNoContent)
{
    Listen();
    {
        const Fault fault(Call::LUMO_CONTENT_ADD, -1);
        SystemServer::PublishDeleteMsg();
    }
    EXPECT_EQ(Errors(), (Texts{R"(data append failed\n)", "SigPublish failed"}));
    EXPECT_EQ(Received(), "");
    EXPECT_EQ(puts.Count(), 1);
}

TEST_F(PublishingAnEvent, NeverWaitsForAListenerThatHasFallenBehind)
{
    Listen();
    for (int i = 0; i < 2000; ++i) {
        SystemServer::PublishDeleteMsg(); // publishes more than a FIFO holds
    }
    EXPECT_TRUE(log.Messages().empty()) << "a dropped event is not an error";
    EXPECT_FALSE(Received().empty());
}
