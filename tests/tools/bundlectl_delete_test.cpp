#include "support/collection_builder.h"
#include "support/program.h"
#include "support/running_server.h"
#include "support/service_environment.h"
#include "support/unix_client.h"

#include <bundle_service.h>

#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <chrono>
#include <filesystem>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

using namespace SystemServer::BundleService;
using namespace std::chrono_literals;

namespace {

std::mutex g_mutex;
std::string g_request;           // the last request, header and content; guarded by g_mutex
std::function<void()> g_removal; // the effect of a deletion; guarded by g_mutex while it runs, too

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

void SetRemoval(std::function<void()> removal)
{
    const std::lock_guard<std::mutex> lock(g_mutex);
    g_removal = std::move(removal);
}

void RunRemoval()
{
    const std::lock_guard<std::mutex> lock(g_mutex);
    if (g_removal) {
        g_removal();
    }
}

/// Answers with the status that belongs to the bundle's name.
void Answer(lumo_message* msg, bolt_connection* conn)
{
    static const std::map<std::string, std::uint16_t> statuses{
        {"gone", STATUS_OK}, {"stuck", STATUS_BAD_REQUEST}, {"unknown", STATUS_NOT_FOUND},
        {"odd", 500},        {"radio", STATUS_OK},          {"plain", STATUS_OK}};
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
    RunRemoval();
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

/// Expects one line on standard error that names the bundle.
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

/// A server that reports a deletion as done, even if the directory is still there.
class BundlectlDeleteAndTheDirectory : public BundlectlDelete {
public:
    BundlectlDeleteAndTheDirectory() { collection.BundleIn("receiver").Name("radio").Write(); }
    ~BundlectlDeleteAndTheDirectory() override { SetRemoval(nullptr); }

    int Delete()
    {
        ended = Control({"delete", "radio", "--collection", collection.Path()});
        return ended.status;
    }

    void Remove() const { std::filesystem::remove_all(collection / "receiver"); }

    CollectionBuilder collection;
    Ended ended{};
};

} // namespace

TEST_F(BundlectlDelete, SendsTheNameInAFieldOfZeros)
{
    EXPECT_EQ(Control({"delete", "gone"}).status, 0);
    std::string content = "gone";
    content.resize(128, '\0');
    EXPECT_EQ(LastRequest(), PacketOf(4, 0, content));
}

TEST_F(BundlectlDelete, SaysThatItCannotCheckADirectoryThatItDoesNotKnow)
{
    const Ended ended = Control({"delete", "gone"});
    EXPECT_EQ(ended.status, 0);
    EXPECT_EQ(ended.output.rfind("bundle \"gone\" is deleted. Whether its directory has gone is not known: ", 0), 0U)
        << ended.output;
    EXPECT_EQ(ended.errors, "");

    const CollectionBuilder empty;
    const Ended nowhere = Control({"delete", "gone", "--collection", empty.Path()});
    EXPECT_EQ(nowhere.status, 0);
    EXPECT_TRUE(Has(nowhere.output, "no manifest in " + empty.Path() + " has this name")) << nowhere.output;
}

TEST_F(BundlectlDelete, EndsWithOneWhenTheServerFails)
{
    const Ended ended = Control({"delete", "stuck"});
    EXPECT_EQ(ended.status, 1);
    ExpectOneSentenceAbout("stuck", ended);
    EXPECT_TRUE(Has(ended.errors, "The server's log says why."));
}

TEST_F(BundlectlDelete, EndsWithThreeForAnUnknownBundle)
{
    const Ended ended = Control({"delete", "unknown"});
    EXPECT_EQ(ended.status, 3);
    ExpectOneSentenceAbout("unknown", ended);
}

TEST_F(BundlectlDelete, EndsWithOneForAnUnknownAnswer)
{
    const Ended odd = Control({"delete", "odd"});
    EXPECT_EQ(odd.status, 1);
    ExpectOneSentenceAbout("odd", odd);
    EXPECT_TRUE(Has(odd.errors, "status 500"));

    const Ended plain = Control({"delete", "plain"});
    EXPECT_EQ(plain.status, 1);
    ExpectOneSentenceAbout("plain", plain);
    EXPECT_TRUE(Has(plain.errors, "what came is no reply"));
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

TEST_F(BundlectlDelete, TakesANameOfAnyBytes)
{
    EXPECT_EQ(Control({"delete", std::string(127, 'n'), "--timeout", "1"}).status, 5)
        << "the request is sent and not answered";
    EXPECT_EQ(LastRequest(), PacketOf(4, 0, std::string(127, 'n') + '\0'));
    EXPECT_EQ(Control({"delete", std::string(128, 'n')}).status, 2);
    ExpectOneSentenceAbout("a\\nb\\033", Control({"delete", "a\nb\x1B", "--timeout", "1"}));
}

TEST_F(BundlectlDeleteAndTheDirectory, ReportsTheDeletionWhenTheDirectoryIsGone)
{
    SetRemoval([this] { Remove(); });
    EXPECT_EQ(Delete(), 0);
    EXPECT_EQ(ended.output, "bundle \"radio\" is deleted.\n");
    EXPECT_EQ(ended.errors, "");
}

TEST_F(BundlectlDeleteAndTheDirectory, EndsWithOneAndNamesWhatIsLeft)
{
    collection.BundleIn("receiver").Name("radio").Item("radiod", "").Write();
    EXPECT_EQ(Delete(), 1);
    ExpectOneSentenceAbout("radio", ended);
    EXPECT_TRUE(Has(ended.errors, "\"" + collection / "receiver/")) << ended.errors;
    EXPECT_TRUE(Has(ended.errors, "and 1 more")) << ended.errors;

    SetRemoval([this] {
        std::filesystem::remove_all(collection / "receiver");
        std::filesystem::create_directories(collection / "receiver/data/lost\nfound");
    });
    std::filesystem::remove_all(collection / "receiver/bin");
    EXPECT_EQ(Delete(), 0) << "another directory is in its place";

    collection.BundleIn("receiver").Name("radio").Write();
    SetRemoval([this] { std::filesystem::remove(collection / "receiver/BundleManifest.ini"); });
    EXPECT_EQ(Delete(), 1);
    EXPECT_TRUE(Has(ended.errors, "\"" + collection / "receiver/data/lost\\nfound\" cannot be removed"))
        << ended.errors;
}

TEST_F(BundlectlDeleteAndTheDirectory, DoesNotCountADirectoryThatHasReplacedIt)
{
    SetRemoval([this] {
        Remove();
        collection.BundleIn("receiver").Name("radio").Write();
    });
    EXPECT_EQ(Delete(), 0) << ended.errors;
}

TEST_F(BundlectlDeleteAndTheDirectory, ChecksOneOfTwoDirectoriesWithTheBundlesName)
{
    collection.BundleIn("other").Name("radio").Write();
    SetRemoval([this] { Remove(); });
    EXPECT_EQ(Delete(), 0) << ended.errors;
}

TEST_F(BundlectlDeleteAndTheDirectory, ChecksForALinkWhereTheDirectoryIsALink)
{
    const CollectionBuilder elsewhere;
    elsewhere.BundleIn("receiver").Name("radio").Write();
    std::filesystem::remove_all(collection / "receiver");
    std::filesystem::create_directory_symlink(elsewhere / "receiver", collection / "receiver");
    EXPECT_EQ(Delete(), 1);
    SetRemoval([this] { std::filesystem::remove(collection / "receiver"); });
    EXPECT_EQ(Delete(), 0) << ended.errors;
}

TEST_F(BundlectlDeleteAndTheDirectory, FindsTheCollectionByAConfigurationInEachFormat)
{
    const std::string key = "bundle_collection_dir";
    const std::map<std::string, std::string> texts{
        {"ini", "[global]\n" + key + " = " + collection.Path() + "\n"},
        {"properties", "global." + key + " = " + collection.Path() + "\n"},
        {"xml", "<config><global><" + key + ">" + collection.Path() + "</" + key + "></global></config>"},
        {"json", "{\"global\": {\"" + key + "\": \"" + collection.Path() + "\"}}"},
    };
    const TemporaryDirectory directory;
    for (const auto& [format, text] : texts) {
        const std::string file = directory / ("server." + format);
        WriteFile(file, text);
        ended = Control({"delete", "radio", "--config", file});
        EXPECT_EQ(ended.status, 1) << format << ended.output;
    }
    WriteFile(directory / "empty.ini", "");
    ended = Control({"delete", "radio", "--config", directory / "empty.ini"});
    EXPECT_EQ(ended.status, 0);
    EXPECT_TRUE(Has(ended.output, "is not known: Not found: global.bundle_collection_dir. ")) << ended.output;
}

TEST(Bundlectl, EndsWithFourWithoutAServer)
{
    const Ended ended = Control({"delete", "tuner"});
    EXPECT_EQ(ended.status, 4);
    ExpectOneSentenceAbout("tuner", ended);
    EXPECT_TRUE(Has(ended.errors, "/mnt/bolt/bundlesvr.paas.kov (No such file or directory)")) << ended.errors;
}

TEST(Bundlectl, EndsWithFourAtADeadServersSocket)
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

TEST(Bundlectl, EndsWithFiveIfTheServerAcceptsNoConnection)
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
