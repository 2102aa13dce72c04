// Requests and their connections: each request gets one reply, and a broken one does not affect others.

#include "system/system_test.h"

#include <bundle_service.h>

#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <filesystem>
#include <optional>
#include <string>
#include <vector>

namespace {

using namespace std::chrono_literals;
using SystemServer::BundleService::METHOD_DELETE_BUNDLE;
using SystemServer::BundleService::RESPONSE_FLAG;

class ARequest : public SystemTest {
protected:
    void SetUp() override
    {
        collection.Bundle("radio").Write();
        ASSERT_TRUE(daemon.StartServing());
    }

    std::string Ask(const std::string& packet)
    {
        const UnixClient client(SERVICE_SOCKET);
        return client.Ask(packet, DaemonRunner::PATIENCE).value_or("no reply");
    }

    /// Whether the bundle is there and the server runs.
    bool IsRadioThere() { return Exists(collection / "radio") && daemon.IsRunning(); }
};

class AConnection : public ARequest {};

class TwoServers : public SystemTest {
public:
    CollectionBuilder otherCollection;
    DaemonRunner other{otherCollection.Path()};
};

} // namespace

TEST_F(ARequest, WithTooShortAContentIsRefused)
{
    EXPECT_EQ(Ask(PacketOf(METHOD_DELETE_BUNDLE, 0, NameField("radio").substr(0, 127))), StatusPacket(400));
    EXPECT_EQ(daemon.CountInLog("invalid content len[127],required content len[128]"), 1);
    EXPECT_TRUE(IsRadioThere());
}

TEST_F(ARequest, WithoutContentIsRefused)
{
    EXPECT_EQ(Ask(PacketOf(METHOD_DELETE_BUNDLE, 0, "")), StatusPacket(400));
    EXPECT_EQ(daemon.CountInLog(" : call lumo_content fail.return code["), 1);
    EXPECT_TRUE(IsRadioThere());
}

TEST_F(ARequest, ForAnUnknownBundleFindsNoBundle)
{
    EXPECT_EQ(Ask(DeletePacket("video")), StatusPacket(404));
    EXPECT_TRUE(InOrder(daemon.Messages(), {"receive uri: 0,method: 4", "find bundle[video]...",
                                            "bundle [video] not found.", "find bundle[video] fail."}));
    EXPECT_TRUE(IsRadioThere());
}

TEST_F(ARequest, ForAnotherUriIsRefused)
{
    EXPECT_EQ(Ask(PacketOf(METHOD_DELETE_BUNDLE, 1, NameField("radio"))), StatusPacket(400));
    EXPECT_EQ(daemon.CountInLog("receive uri: 1,method: 4"), 1);
    EXPECT_EQ(daemon.CountInLog("invalid uri[1] from connect fd["), 1);
    EXPECT_TRUE(IsRadioThere());
}

TEST_F(ARequest, WithAnInvalidMethodIsRefused)
{
    for (const int method : {0, 5, 127}) {
        EXPECT_EQ(Ask(PacketOf(static_cast<std::uint8_t>(method), 0, NameField("radio"))), StatusPacket(400));
        EXPECT_EQ(daemon.CountInLog("invalid method[" + std::to_string(method) + "] from connect fd["), 1);
    }
    EXPECT_TRUE(IsRadioThere());
}

TEST_F(ARequest, WithAMethodThatIsNotSupportedIsRefused)
{
    for (const int method : {1, 2, 3}) {
        EXPECT_EQ(Ask(PacketOf(static_cast<std::uint8_t>(method), 0, NameField("radio"))), StatusPacket(400));
        EXPECT_EQ(daemon.CountInLog("not support uri[0].method[" + std::to_string(method) + "]"), 1);
    }
    EXPECT_TRUE(IsRadioThere());
}

TEST_F(ARequest, MayHaveTheFlagOfAResponse)
{
    EXPECT_EQ(Ask(PacketOf(METHOD_DELETE_BUNDLE | RESPONSE_FLAG, 0, NameField("radio"))), StatusPacket(200));
    EXPECT_FALSE(Exists(collection / "radio"));
}

TEST_F(ARequest, MayBeLongerThanItNeeds)
{
    EXPECT_EQ(Ask(PacketOf(METHOD_DELETE_BUNDLE, 0, NameField("radio") + std::string(1000, 'x'))), StatusPacket(200));
    EXPECT_FALSE(Exists(collection / "radio"));
}

TEST_F(ARequest, WhoseNameHasNoNulFindsNoBundle)
{
    EXPECT_EQ(Ask(PacketOf(METHOD_DELETE_BUNDLE, 0, std::string(128, 'x'))), StatusPacket(404));
    EXPECT_EQ(daemon.CountInLog("find bundle[" + std::string(128, 'x') + "] fail."), 1);
    EXPECT_EQ(Ask(PacketOf(METHOD_DELETE_BUNDLE, 0, std::string(65528, 'x'))), StatusPacket(404));
    EXPECT_TRUE(IsRadioThere());
}

TEST_F(ARequest, IsAnsweredOnceForEachPacketOfAConnection)
{
    const UnixClient client(SERVICE_SOCKET);
    ASSERT_TRUE(client.Send(DeletePacket("video")));
    ASSERT_TRUE(client.Send(PacketOf(2, 0, "")));
    ASSERT_TRUE(client.Send(DeletePacket("radio")));
    EXPECT_EQ(client.Receive(DaemonRunner::PATIENCE), StatusPacket(404));
    EXPECT_EQ(client.Receive(DaemonRunner::PATIENCE), StatusPacket(400));
    EXPECT_EQ(client.Receive(DaemonRunner::PATIENCE), StatusPacket(200));
    EXPECT_EQ(client.Receive(200ms), std::nullopt);
}

TEST_F(AConnection, ThatSendsABrokenPacketIsTheOnlyOneClosed)
{
    const UnixClient bystander(SERVICE_SOCKET);
    std::string wrongLength = DeletePacket("radio");
    wrongLength[0] = 127;
    const std::vector<std::string> broken{"x", PacketOf(METHOD_DELETE_BUNDLE, 0, "").substr(0, 7), wrongLength,
                                          PacketOf(METHOD_DELETE_BUNDLE, 0, "") + "x", std::string(65537, '\0')};
    for (const std::string& packet : broken) {
        const UnixClient client(SERVICE_SOCKET);
        ASSERT_TRUE(client.Send(packet));
        EXPECT_EQ(client.Receive(DaemonRunner::PATIENCE), std::nullopt);
        EXPECT_TRUE(client.IsClosedByPeer(DaemonRunner::PATIENCE));
    }
    EXPECT_EQ(bystander.Ask(DeletePacket("video"), DaemonRunner::PATIENCE), StatusPacket(404));
    EXPECT_TRUE(IsRadioThere());
}

TEST_F(AConnection, ThatIsClosedBeforeTheReplyHarmsNothing)
{
    for (int i = 0; i < 20; ++i) {
        const UnixClient client(SERVICE_SOCKET);
        ASSERT_TRUE(client.Send(DeletePacket("video")));
    }
    EXPECT_EQ(RequestDelete("radio"), 200);
}

TEST_F(AConnection, OfAnotherUserIsRefused)
{
    if (::geteuid() != 0) {
        GTEST_SKIP() << "only root can become another user";
    }
    struct stat status {};
    ASSERT_EQ(::stat(SERVICE_SOCKET, &status), 0);
    EXPECT_EQ(status.st_mode & 07777, 0660U);
    constexpr uid_t nobody = 65534;
    const auto asNobody = [](const auto& attempt) {
        const pid_t pid = ::fork();
        if (pid == 0) {
            ::_exit(::setgid(nobody) == 0 && ::setuid(nobody) == 0 && attempt() ? 0 : 1);
        }
        int end = 0;
        ::waitpid(pid, &end, 0);
        return WIFEXITED(end) && WEXITSTATUS(end) == 0;
    };
    EXPECT_TRUE(asNobody([] { return UnixClient(SERVICE_SOCKET).Error() == EACCES; }));
    // The server checks the user too, not only the file's mode.
    ASSERT_EQ(::chmod(SERVICE_SOCKET, 0666), 0);
    ASSERT_EQ(::chmod("/mnt/bolt", 0755), 0);
    EXPECT_TRUE(asNobody([] {
        const UnixClient client(SERVICE_SOCKET);
        client.Send(DeletePacket("radio"));
        return client.IsConnected() && client.IsClosedByPeer(DaemonRunner::PATIENCE);
    }));
    EXPECT_EQ(daemon.CountInLog("of user 65534 is refused"), 1);
    EXPECT_TRUE(IsRadioThere());
    EXPECT_EQ(RequestDelete("radio"), 200);
}

TEST_F(TwoServers, LeaveTheServiceToTheFirst)
{
    collection.Bundle("radio").Write();
    otherCollection.Bundle("tuner").Item("tuner.sh", ExitOnFirstRun(Note("ran"), 11)).Write();
    otherCollection.Bundle("video").Write();
    ASSERT_TRUE(daemon.StartServing());
    other.Start();
    ASSERT_TRUE(other.WaitForLog("bolt_server_register fail."));
    EXPECT_EQ(other.CountInLog("bundle server start running..."), 0);
    EXPECT_NE(other.WaitForItem("tuner", "tuner.sh", 2), 0) << "it still supervises its items";
    EXPECT_TRUE(other.IsRunning());
    EXPECT_EQ(RequestDelete("video"), 404) << "the second server's bundle cannot be reached";
    std::filesystem::remove_all(otherCollection / "video");
    EXPECT_TRUE(other.WaitForLog("unload bundle done.")) << "it still follows its directory";
    EXPECT_EQ(other.Stop(SIGTERM).status, 0);
    EXPECT_EQ(RequestDelete("radio"), 200) << "the first server still has its socket";
}
