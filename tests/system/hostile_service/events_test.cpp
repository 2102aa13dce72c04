// An event service that does not exist, is no FIFO, or has a listener that does not read.
#include "system/hostile_service/hostile_service.h"

#include <fcntl.h>
#include <sys/mount.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <cstring>
#include <filesystem>

namespace {

constexpr std::size_t EVENT_SIZE = 72;

/// Deletes bundles. Each deletion publishes an event, and nothing else may depend on the event service.
class AnEventService : public HostileService {
protected:
    void SetUp() override
    {
        for (int i = 0; i < 40; ++i) {
            collection.Bundle("spare" + std::to_string(i)).Write();
        }
        StartServing();
    }

    void DeleteSome(int count)
    {
        for (int i = 0; i < count; ++i) {
            const std::string name = "spare" + std::to_string(m_next++);
            ASSERT_EQ(RequestDelete(name), 200) << name;
            ASSERT_FALSE(Exists(collection / name));
        }
    }

    void ExpectHarmless()
    {
        Withstands(2, [this] { DeleteSome(5); });
        ExpectRadioIsDeleted();
        ExpectGoodService(); // the server writes the event after its reply, and before its next one
    }

    /// Reads all events in the FIFO. Returns their number.
    static std::size_t ReadEvents(int fifo)
    {
        std::size_t events = 0;
        std::array<char, EVENT_SIZE> event{};
        while (::read(fifo, event.data(), event.size()) == static_cast<ssize_t>(event.size())) {
            ++events;
        }
        return events;
    }

    int m_next = 0;
};

using TheServiceDirectory = SystemTest;

} // namespace

TEST_F(AnEventService, ThatDoesNotExistCostsOnlyEvents)
{
    ExpectHarmless();
    EXPECT_TRUE(daemon.WaitForLog("open event srv fail", 16));
}

TEST_F(AnEventService, ThatIsNotReadCostsNothing)
{
    ASSERT_EQ(::mkfifo(EVENT_FIFO, 0660), 0);
    ExpectHarmless();
    EXPECT_EQ(daemon.CountInLog("open event srv fail"), 0);
    const int fifo = ::open(EVENT_FIFO, O_RDONLY | O_NONBLOCK | O_CLOEXEC);
    EXPECT_EQ(ReadEvents(fifo), 0U) << "events without a listener are lost";
    ::close(fifo);
}

TEST_F(AnEventService, WhoseListenerStopsWithTheFifoFullLosesWholeEvents)
{
    ASSERT_EQ(::mkfifo(EVENT_FIFO, 0660), 0);
    const int fifo = ::open(EVENT_FIFO, O_RDWR | O_NONBLOCK | O_CLOEXEC);
    ASSERT_GE(fifo, 0);
    DeleteSome(3);
    ExpectGoodService();
    ASSERT_EQ(ReadEvents(fifo), 3U);
    const std::string other(EVENT_SIZE, 'x');
    std::size_t waiting = 0;
    while (::write(fifo, other.data(), other.size()) == static_cast<ssize_t>(other.size())) {
        ++waiting;
    }
    ExpectHarmless();
    EXPECT_EQ(ReadEvents(fifo), waiting) << "only whole events are lost";
    DeleteSome(2);
    ExpectGoodService();
    EXPECT_EQ(ReadEvents(fifo), 2U) << "a listener that reads again receives events";
    ::close(fifo);
}

TEST_F(AnEventService, WhoseListenerComesAndGoesGetsEventsWhileItListens)
{
    ASSERT_EQ(::mkfifo(EVENT_FIFO, 0660), 0);
    for (int round = 0; round < 5; ++round) {
        const int fifo = ::open(EVENT_FIFO, O_RDONLY | O_NONBLOCK | O_CLOEXEC);
        DeleteSome(1);
        ExpectGoodService();
        EXPECT_EQ(ReadEvents(fifo), 1U);
        ::close(fifo);
        DeleteSome(1);
        ExpectGoodService();
    }
    ExpectHarmless();
}

TEST_F(AnEventService, ThatIsAnOrdinaryFileIsLeftAsItIs)
{
    WriteFile(EVENT_FIFO, "mine");
    ExpectHarmless();
    EXPECT_TRUE(daemon.WaitForLog("open event srv fail", 16));
    EXPECT_EQ(ReadFile(EVENT_FIFO), "mine");
}

TEST_F(AnEventService, ThatIsALinkToAFileDoesNotChangeTheFile)
{
    WriteFile(Note("target"), "mine");
    ASSERT_EQ(::symlink(Note("target").c_str(), EVENT_FIFO), 0);
    ExpectHarmless();
    EXPECT_TRUE(daemon.WaitForLog("open event srv fail", 16));
    EXPECT_EQ(ReadFile(Note("target")), "mine");
}

TEST_F(AnEventService, ThatIsALinkToAnotherFifoIsNotWrittenTo)
{
    ASSERT_EQ(::mkfifo(Note("target").c_str(), 0660), 0);
    ASSERT_EQ(::symlink(Note("target").c_str(), EVENT_FIFO), 0);
    const int fifo = ::open(Note("target").c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC);
    ExpectHarmless();
    EXPECT_TRUE(daemon.WaitForLog("open event srv fail", 16));
    EXPECT_EQ(ReadEvents(fifo), 0U);
    ::close(fifo);
}

TEST_F(AnEventService, ThatIsADirectoryCostsOnlyEvents)
{
    ASSERT_EQ(::mkdir(EVENT_FIFO, 0755), 0);
    ExpectHarmless();
    EXPECT_TRUE(daemon.WaitForLog("open event srv fail", 16));
}

TEST_F(AnEventService, ThatIsASocketCostsOnlyEvents)
{
    const int listener = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    std::string(EVENT_FIFO).copy(address.sun_path, sizeof address.sun_path - 1);
    ASSERT_EQ(::bind(listener, reinterpret_cast<const sockaddr*>(&address), sizeof address), 0);
    ExpectHarmless();
    EXPECT_TRUE(daemon.WaitForLog("open event srv fail", 16));
    ::close(listener);
}

TEST_F(AnEventService, WhoseDirectoryIsGoneCostsOnlyEvents)
{
    const UnixClient client(SERVICE_SOCKET);
    std::filesystem::remove_all("/mnt/bolt");
    EXPECT_EQ(client.Ask(DeletePacket("spare0"), DaemonRunner::PATIENCE), StatusPacket(200));
    EXPECT_TRUE(daemon.WaitForLog("open event srv fail"));
    EXPECT_EQ(client.Ask(DeletePacket("radio"), DaemonRunner::PATIENCE), StatusPacket(200));
    EXPECT_TRUE(daemon.IsRunning());
    EXPECT_TRUE(ComesToRest());
    EXPECT_EQ(daemon.Stop().status, 0);
}

TEST_F(AnEventService, InADirectoryThatHasBecomeReadOnlyStillGetsEvents)
{
    ASSERT_EQ(::mkfifo(EVENT_FIFO, 0660), 0);
    const int fifo = ::open(EVENT_FIFO, O_RDONLY | O_NONBLOCK | O_CLOEXEC);
    ASSERT_EQ(::mount(nullptr, "/mnt", nullptr, MS_REMOUNT | MS_RDONLY | MS_NOSUID | MS_NODEV, nullptr), 0)
        << std::strerror(errno);
    DeleteSome(3);
    ExpectGoodService();
    EXPECT_EQ(ReadEvents(fifo), 3U);
    ::close(fifo);
    ExpectHarmless();
    EXPECT_EQ(daemon.Stop().status, 0) << "the next server replaces the socket that this one cannot remove";
    ASSERT_EQ(::mount(nullptr, "/mnt", nullptr, MS_REMOUNT | MS_NOSUID | MS_NODEV, nullptr), 0);
    collection.Bundle("radio").Write();
    EXPECT_TRUE(daemon.StartServing());
    ExpectRadioIsDeleted();
}

TEST_F(TheServiceDirectory, ThatCannotBeMadeCostsTheServiceButNotTheSupervision)
{
    ASSERT_EQ(::mount(nullptr, "/mnt", nullptr, MS_REMOUNT | MS_RDONLY | MS_NOSUID | MS_NODEV, nullptr), 0)
        << std::strerror(errno);
    collection.Bundle("radio").Copy("radiod", TEST_SLEEPER).Write();
    collection.Bundle("video").Write();
    daemon.Start();
    ASSERT_TRUE(daemon.WaitForLog("bolt_server_register fail."));
    EXPECT_EQ(daemon.CountInLog("/mnt/bolt cannot be made: Read-only file system."), 1);
    const pid_t radio = daemon.WaitForItem("radio", "radiod");
    ASSERT_NE(radio, 0);
    ASSERT_EQ(::kill(radio, SIGKILL), 0);
    EXPECT_NE(daemon.WaitForItem("radio", "radiod", 2), 0);
    std::filesystem::remove_all(collection / "video");
    EXPECT_TRUE(daemon.WaitForLog("unload bundle done."));
    EXPECT_EQ(daemon.Stop().status, 0);
}
