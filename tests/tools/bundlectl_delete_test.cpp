#include "platform/environment.h"
#include "platform/running_server.h"
#include "support/unix_client.h"
#include "tools/program.h"

#include <bundle_service.h>

#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <chrono>
#include <map>
#include <memory>
#include <mutex>
#include <stdexcept>
#include <string>
#include <vector>

using namespace SystemServer::BundleService;
using namespace std::chrono_literals;

namespace {

std::mutex g_mutex;
std::string g_request; // the last one, header and content; guarded by g_mutex

void Remember(const lumo_message* msg, const void* content, int length)
{
    const std::lock_guard<std::mutex> lock(g_mutex);
    g_request = PacketOf(msg->header, {static_cast<const char*>(content), static_cast<std::size_t>(length)});
}

std::string LastRequest()
{
    const std::lock_guard<std::mutex> lock(g_mutex);
    return g_request;
}

/// Answers as the bundle's name says.
void Answer(lumo_message* msg, bolt_connection* conn)
{
    static const std::map<std::string, std::uint16_t> statuses{{"gone", STATUS_OK},
                                                               {"stuck", STATUS_BAD_REQUEST},
                                                               {"unknown", STATUS_NOT_FOUND},
                                                               {"odd", 500},
                                                               {"plain", STATUS_OK}};
    void* data = nullptr;
    int length = 0;
    if (lumo_content(msg, &data, &length) != 0) {
        return;
    }
    Remember(msg, data, length);
    const std::string name = static_cast<const char*>(data);
    if (name == "fatal") {
        throw std::runtime_error("closes the connection");
    }
    const auto status = statuses.find(name);
    if (status == statuses.end()) {
        return;
    }
    lumo_header_clear(msg);
    lumo_content_clear(msg);
    msg->header.method = name == "plain" ? METHOD_DELETE_BUNDLE : RESPONSE_FLAG;
    msg->header.status = status->second;
    lumo_message_async_send(msg, conn, 0);
}

const bolt_protocol_ops g_protocol{nullptr, Answer};

Ended Control(const std::vector<std::string>& arguments)
{
    return RunToEnd(BUNDLECTL, arguments);
}

/// One line, on standard error, that names the bundle.
void ExpectOneSentenceAbout(const std::string& bundle, const Ended& ended)
{
    EXPECT_EQ(ended.output, "");
    EXPECT_EQ(ended.errors.rfind("bundlectl: bundle \"" + bundle + "\" ", 0), 0U) << ended.errors;
    EXPECT_EQ(ended.errors.find('\n'), ended.errors.size() - 1) << ended.errors;
}

class BundlectlDelete : public ::testing::Test {
protected:
    void SetUp() override { ASSERT_TRUE(m_server.IsRegistered()) << LogText(); }

    RunningServer m_server{SERVICE_NAME, g_protocol};
};

} // namespace

TEST_F(BundlectlDelete, SendsTheNameInAFieldOfZeros)
{
    EXPECT_EQ(Control({"delete", "gone"}).status, 0);
    std::string content = "gone";
    content.resize(128, '\0');
    EXPECT_EQ(LastRequest(), PacketOf(4, 0, content));
}

TEST_F(BundlectlDelete, EndsWithZeroWhenTheBundleIsDeleted)
{
    const Ended ended = Control({"delete", "gone"});
    EXPECT_EQ(ended.status, 0);
    EXPECT_EQ(ended.output, "bundle \"gone\" is deleted.\n");
    EXPECT_EQ(ended.errors, "");
}

TEST_F(BundlectlDelete, EndsWithOneWhenTheServerCouldNot)
{
    const Ended ended = Control({"delete", "stuck"});
    EXPECT_EQ(ended.status, 1);
    ExpectOneSentenceAbout("stuck", ended);
    EXPECT_TRUE(Has(ended.errors, "The server's log says why."));
}

TEST_F(BundlectlDelete, EndsWithThreeWhenTheServerKnowsNoSuchBundle)
{
    const Ended ended = Control({"delete", "unknown"});
    EXPECT_EQ(ended.status, 3);
    ExpectOneSentenceAbout("unknown", ended);
}

TEST_F(BundlectlDelete, EndsWithOneAtAnAnswerThatItDoesNotKnow)
{
    const Ended odd = Control({"delete", "odd"});
    EXPECT_EQ(odd.status, 1);
    ExpectOneSentenceAbout("odd", odd);
    EXPECT_TRUE(Has(odd.errors, "status 500"));

    const Ended plain = Control({"delete", "plain"});
    EXPECT_EQ(plain.status, 1);
    ExpectOneSentenceAbout("plain", plain);
    EXPECT_TRUE(Has(plain.errors, "no response"));
}

TEST_F(BundlectlDelete, EndsWithFourWhenTheServerClosesWithoutAReply)
{
    const Ended ended = Control({"delete", "fatal"});
    EXPECT_EQ(ended.status, 4);
    ExpectOneSentenceAbout("fatal", ended);
    EXPECT_TRUE(Has(ended.errors, "closed the connection without a reply"));
}

TEST_F(BundlectlDelete, EndsWithFiveWhenNoAnswerComesInTime)
{
    const auto begin = std::chrono::steady_clock::now();
    const Ended ended = Control({"delete", "silent", "--timeout", "1"});
    EXPECT_EQ(ended.status, 5);
    EXPECT_GE(std::chrono::steady_clock::now() - begin, 1s);
    ExpectOneSentenceAbout("silent", ended);
    EXPECT_TRUE(Has(ended.errors, "within 1 s"));
}

TEST_F(BundlectlDelete, TakesANameOfAnyBytesThatFitsTheField)
{
    EXPECT_EQ(Control({"delete", std::string(127, 'n'), "--timeout", "1"}).status, 5) << "asked, and not answered";
    EXPECT_EQ(LastRequest(), PacketOf(4, 0, std::string(127, 'n') + '\0'));
    EXPECT_EQ(Control({"delete", std::string(128, 'n')}).status, 2);
    ExpectOneSentenceAbout("a\\nb\\033", Control({"delete", "a\nb\x1B", "--timeout", "1"}));
}

TEST(Bundlectl, EndsWithFourWhereNoServerIs)
{
    const Ended ended = Control({"delete", "tuner"});
    EXPECT_EQ(ended.status, 4);
    ExpectOneSentenceAbout("tuner", ended);
    EXPECT_TRUE(Has(ended.errors, "/mnt/bolt/bundlesvr.paas.kov (No such file or directory)")) << ended.errors;
}

TEST(Bundlectl, EndsWithFourWhereADeadServersSocketIs)
{
    {
        const ServerProcess killed(SERVICE_NAME, g_protocol);
        ASSERT_TRUE(killed.IsRegistered()) << LogText();
    }
    const Ended ended = Control({"delete", "tuner"});
    EXPECT_EQ(ended.status, 4);
    EXPECT_TRUE(Has(ended.errors, "Connection refused")) << ended.errors;
    ::unlink(SocketPath(SERVICE_NAME).c_str());
}

TEST(Bundlectl, EndsWithFiveWhereTheServerAcceptsNobody)
{
    ::mkdir("/mnt/bolt", 0755);
    const std::string path = SocketPath(SERVICE_NAME);
    const int busy = ::socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0);
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    path.copy(address.sun_path, sizeof address.sun_path - 1);
    ASSERT_EQ(::bind(busy, reinterpret_cast<const sockaddr*>(&address), sizeof address), 0);
    ASSERT_EQ(::listen(busy, 0), 0);
    const UnixClient first(path);
    EXPECT_EQ(Control({"delete", "tuner", "--timeout", "1"}).status, 5);
    ::close(busy);
    ::unlink(path.c_str());
}

TEST(Bundlectl, EndsWithTwoWhenItIsUsedWrong)
{
    const std::vector<std::vector<std::string>> wrong{
        {},
        {"conquer"},
        {"delete"},
        {"delete", ""},
        {"delete", "one", "two"},
        {"delete", "one", "--timeout"},
        {"delete", "one", "--timeout", "0"},
        {"delete", "one", "--timeout", "-1"},
        {"delete", "one", "--timeout", "soon"},
        {"delete", "one", "--timeout", "1.5"},
        {"delete", "one", "--timeout", "86401"},
        {"delete", "one", "--timeout", "99999999999999999999"},
        {"delete", "one", "--force"},
        {"events", "--count", "0"},
        {"events", "--count", "-3"},
        {"events", "--count", "many"},
        {"events", "extra"},
    };
    for (const auto& arguments : wrong) {
        const Ended ended = Control(arguments);
        EXPECT_EQ(ended.status, 2) << ::testing::PrintToString(arguments);
        EXPECT_EQ(ended.output, "");
        EXPECT_NE(ended.errors, "");
    }
}

TEST(Bundlectl, HelpsOnStandardOutput)
{
    for (const std::vector<std::string>& arguments :
         {std::vector<std::string>{"--help"}, {"delete", "--help"}, {"events", "--help"}}) {
        const Ended ended = Control(arguments);
        EXPECT_EQ(ended.status, 0);
        EXPECT_EQ(ended.errors, "");
        EXPECT_TRUE(Has(ended.output, "exit status: 0 done")) << ended.output;
    }
}
