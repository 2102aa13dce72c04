// A log that cannot be written: a full disk, a FIFO or a pipe without a reader, a file that is removed.
#include "system/hostile_service/hostile_service.h"

#include <fcntl.h>
#include <sys/mount.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <utility>

namespace {

using namespace std::chrono_literals;

constexpr const char LOSS[] = "earlier records are lost: no room for them, or nobody has read them.";

int CountOf(const std::vector<std::string>& lines, const std::string& text)
{
    return static_cast<int>(std::count_if(
        lines.begin(), lines.end(), [&text](const std::string& line) { return line.find(text) != std::string::npos; }));
}

int CountOfUnsound(const std::vector<std::string>& lines)
{
    return static_cast<int>(
        std::count_if(lines.begin(), lines.end(), [](const std::string& line) { return !IsSoundRecord(line); }));
}

/// A reader of the log. It reads when it is told to, and its end closes the pipe.
class LogReader {
public:
    explicit LogReader(const std::string& fifo) : LogReader(::open(fifo.c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC)) {}
    explicit LogReader(int fd) : m_fd(fd) {}
    LogReader(const LogReader&) = delete;
    LogReader& operator=(const LogReader&) = delete;
    ~LogReader() { ::close(m_fd); }

    /// Reads everything in the pipe.
    void Read()
    {
        std::array<char, 8192> bytes{};
        for (ssize_t size = 0; (size = ::read(m_fd, bytes.data(), bytes.size())) > 0;) {
            m_text.append(bytes.data(), static_cast<std::size_t>(size));
        }
    }

    bool WaitFor(const std::string& text)
    {
        return Eventually(DaemonRunner::PATIENCE, [&] {
            Read();
            return m_text.find(text) != std::string::npos;
        });
    }

    std::vector<std::string> Records() const { return Lines(m_text); }

private:
    int m_fd;
    std::string m_text;
};

class ALogOnAFullDisk : public HostileService {
protected:
    void SetUp() override
    {
        // In the test's private /mnt.
        ASSERT_EQ(::mkdir(DISK, 0755), 0);
        ASSERT_EQ(::mount("tmpfs", DISK, "tmpfs", MS_NOSUID | MS_NODEV, "size=16k,mode=0755"), 0)
            << std::strerror(errno);
        daemon.SetLogFile(std::string(DISK) + "/log");
        StartServing();
    }

    /// Sends requests until the disk is full and has cut off a record.
    void FillTheDisk()
    {
        std::uintmax_t size = 0;
        ASSERT_TRUE(Eventually(DaemonRunner::PATIENCE, [&] {
            const std::uintmax_t before = std::exchange(size, std::filesystem::file_size(daemon.LogFile()));
            for (int i = 0; i < 5; ++i) {
                ExpectGoodService();
            }
            if (size != before) {
                return false;
            }
            const bool isCutOff = Log().back() != '\n';
            if (!isCutOff) {
                std::filesystem::resize_file(daemon.LogFile(), 0); // in one of a hundred runs a record fits exactly
            }
            return isCutOff;
        }));
    }

    std::string Log() const { return ReadFile(daemon.LogFile()); }

    void MakeRoom() { ASSERT_EQ(::mount(nullptr, DISK, nullptr, MS_REMOUNT, "size=1m"), 0) << std::strerror(errno); }

    static constexpr const char DISK[] = "/mnt/disk";
};

class ALogThatIsNotRead : public HostileService {
protected:
    void SetUp() override { ASSERT_EQ(::mkfifo(m_fifo.c_str(), 0600), 0); }

    void TearDown() override
    {
        daemon.SetLogFile(""); // a failed test prints this file, and would read the FIFO
        HostileService::TearDown();
    }

    void StartWithFifoAsLog()
    {
        daemon.SetLogFile(m_fifo);
        Start();
    }

    void StartWithFifoAsStandardError()
    {
        daemon.SetLogFile("");
        daemon.SetPreparation([this] {
            const int fd = ::open(m_fifo.c_str(), O_WRONLY | O_CLOEXEC);
            ::dup2(fd, STDERR_FILENO);
        });
        Start();
    }

    /// The pid as the item has noted it, because no log shows it.
    void Start()
    {
        collection.Bundle("radio").Item("radio.sh", Shell("echo $$ > " + Note("pid") + "\nexec sleep 1000")).Write();
        daemon.Start();
        ASSERT_TRUE(Eventually(DaemonRunner::PATIENCE, [] { return UnixClient(SERVICE_SOCKET).IsConnected(); }));
        ASSERT_TRUE(Eventually(DaemonRunner::PATIENCE, [this] { return ItemPid() != 0; }));
    }

    pid_t ItemPid() const { return static_cast<pid_t>(std::strtol(ReadFile(Note("pid")).c_str(), nullptr, 10)); }

    void AskOften(int times)
    {
        for (int i = 0; i < times && !HasFailure(); ++i) {
            ExpectGoodService();
        }
    }

    void ExpectARelaunch()
    {
        const pid_t before = ItemPid();
        ASSERT_EQ(::kill(before, SIGKILL), 0);
        EXPECT_TRUE(Eventually(DaemonRunner::PATIENCE, [&] {
            return ItemPid() != 0 && ItemPid() != before && ProcessOf::IsAlive(ItemPid());
        })) << "no child is relaunched";
        const pid_t after = ItemPid();
        EXPECT_FALSE(Eventually(1500ms, [&] { return ItemPid() != after; })) << "it is relaunched more than once";
    }

    const std::string m_fifo = Note("log-fifo");
};

class TheLogFile : public HostileService {
protected:
    void SetUp() override { StartServing(); }
};

} // namespace

TEST_F(ALogOnAFullDisk, CostsRecordsAndNoService)
{
    FillTheDisk();
    ASSERT_FALSE(HasFailure());
    Withstands(3, [this] {
        for (int i = 0; i < 50; ++i) {
            ExpectGoodService();
        }
    });
    const pid_t before = Radio();
    EXPECT_EQ(::kill(before, SIGKILL), 0);
    const auto isAnotherRadio = [&] {
        const std::vector<pid_t> items = daemon.Descendants();
        return items.size() == 1 && items.front() != before &&
               ProcessOf::Executable(items.front()).find("/bin/radiod") != std::string::npos;
    };
    EXPECT_TRUE(Eventually(DaemonRunner::PATIENCE, isAnotherRadio)) << "supervision continues";
    ExpectRadioIsDeleted();
}

TEST_F(ALogOnAFullDisk, ContinuesInANewLineOnceThereIsRoomAndCountsTheLostRecords)
{
    FillTheDisk();
    ASSERT_FALSE(HasFailure());
    const std::string full = Log();
    MakeRoom();
    ExpectGoodService();
    ExpectGoodService();
    const std::string log = Log();
    EXPECT_EQ(log.compare(0, full.size(), full), 0);
    const std::vector<std::string> after = Lines(log.substr(full.size()));
    ASSERT_GT(after.size(), 2U);
    EXPECT_EQ(after[0], "") << "a line end first completes the cut-off line";
    EXPECT_EQ(log.back(), '\n');
    EXPECT_NE(after[1].find(LOSS), std::string::npos) << after[1];
    EXPECT_NE(after[2].find(" receive uri: 0,method: 4"), std::string::npos) << after[2];
    EXPECT_EQ(CountOfUnsound({after.begin() + 1, after.end()}), 0);
    EXPECT_EQ(CountOf(after, LOSS), 1);
    ExpectRadioIsDeleted();
}

TEST_F(ALogThatIsNotRead, DoesNotKeepTheServerFromStartingAndIsReadLater)
{
    StartWithFifoAsLog();
    ASSERT_FALSE(HasFailure());
    AskOften(2000); // writes more records than a pipe holds
    LogReader reader(m_fifo);
    ASSERT_TRUE(reader.WaitFor("bundle server start running..."));
    ExpectGoodService();
    ASSERT_TRUE(reader.WaitFor(LOSS));
    ExpectGoodService();
    reader.Read();
    EXPECT_EQ(CountOfUnsound(reader.Records()), 0);
    EXPECT_EQ(CountOf(reader.Records(), LOSS), 1);
    ExpectRadioIsDeleted();
}

TEST_F(ALogThatIsNotRead, WhoseReaderStopsCostsTheServerRecordsAndASecondAtMost)
{
    StartWithFifoAsLog();
    ASSERT_FALSE(HasFailure());
    LogReader reader(m_fifo);
    ASSERT_TRUE(reader.WaitFor("bundle server start running..."));
    Withstands(2, [this] { AskOften(1000); }); // the reader no longer reads
    ExpectARelaunch();
    ASSERT_TRUE(reader.WaitFor("find bundle[not-there] fail."));
    ExpectGoodService();
    EXPECT_TRUE(reader.WaitFor(LOSS));
    EXPECT_EQ(CountOfUnsound(reader.Records()), 0) << "only whole records are lost";
    ExpectRadioIsDeleted();
}

TEST_F(ALogThatIsNotRead, WhoseReaderHasEndedIsReadByTheNextOne)
{
    StartWithFifoAsLog();
    ASSERT_FALSE(HasFailure());
    {
        LogReader first(m_fifo);
        ASSERT_TRUE(first.WaitFor("bundle server start running..."));
    }
    ExpectGoodService();
    ExpectARelaunch();
    LogReader second(m_fifo);
    EXPECT_TRUE(second.WaitFor("find bundle[not-there] fail."));
    EXPECT_TRUE(second.WaitFor("relaunch done."));
    EXPECT_EQ(CountOfUnsound(second.Records()), 0);
    ExpectRadioIsDeleted();
}

TEST_F(ALogThatIsNotRead, OnStandardErrorCostsTheServerRecordsAndASecondAtMost)
{
    LogReader reader(m_fifo);
    StartWithFifoAsStandardError();
    ASSERT_FALSE(HasFailure());
    ASSERT_TRUE(reader.WaitFor("bundle server start running..."));
    Withstands(2, [this] { AskOften(1000); });
    ExpectARelaunch();
    ASSERT_TRUE(reader.WaitFor("find bundle[not-there] fail."));
    ExpectGoodService();
    EXPECT_TRUE(reader.WaitFor(LOSS));
    EXPECT_EQ(CountOfUnsound(reader.Records()), 0);
    ExpectRadioIsDeleted();
}

TEST_F(ALogThatIsNotRead, OnStandardErrorWhoseReaderHasEndedKillsNoChildBeforeItsExec)
{
    {
        LogReader reader(m_fifo);
        StartWithFifoAsStandardError();
        ASSERT_FALSE(HasFailure());
        ASSERT_TRUE(reader.WaitFor("bundle server start running..."));
    }
    AskOften(100);
    ExpectARelaunch();
    EXPECT_EQ(ProcessOf::Status(ItemPid(), "SigBlk"), "0000000000000000") << "a child inherits no blocked signal";
    ExpectRadioIsDeleted();
}

TEST_F(ALogThatIsNotRead, OnASocketCostsTheServerRecordsAndASecondAtMost)
{
    const int listener = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    Note("log-socket").copy(address.sun_path, sizeof address.sun_path - 1);
    const auto* const generic = reinterpret_cast<const sockaddr*>(&address);
    ASSERT_EQ(::bind(listener, generic, sizeof address), 0);
    ASSERT_EQ(::listen(listener, 1), 0);
    daemon.SetLogFile("");
    daemon.SetPreparation([&] {
        const int fd = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
        if (::connect(fd, generic, sizeof address) == 0) {
            ::dup2(fd, STDERR_FILENO);
        }
    });
    Start();
    ASSERT_FALSE(HasFailure());
    Withstands(2, [this] { AskOften(1000); });
    ExpectARelaunch();
    LogReader reader(::accept4(listener, nullptr, nullptr, SOCK_CLOEXEC | SOCK_NONBLOCK));
    ASSERT_TRUE(reader.WaitFor("find bundle[not-there] fail."));
    ExpectGoodService();
    EXPECT_TRUE(reader.WaitFor(LOSS));
    EXPECT_EQ(CountOfUnsound(reader.Records()), 0);
    ::close(listener);
    ExpectRadioIsDeleted();
}

TEST_F(TheLogFile, MayBeRenamedAndTheServerKeepsWritingToIt)
{
    std::filesystem::rename(daemon.LogFile(), Note("rotated"));
    ExpectGoodService();
    EXPECT_FALSE(Exists(daemon.LogFile())) << "it is not created again";
    EXPECT_TRUE(Eventually(DaemonRunner::PATIENCE, [this] {
        return ReadFile(Note("rotated")).find("find bundle[not-there] fail.") != std::string::npos;
    }));
    ExpectRadioIsDeleted();
}

TEST_F(TheLogFile, MayBeRemovedAndTheServerKeepsServing)
{
    Withstands(2, [this] {
        std::filesystem::remove(daemon.LogFile());
        for (int i = 0; i < 50; ++i) {
            ExpectGoodService();
        }
    });
    ExpectRadioIsDeleted();
}

TEST_F(TheLogFile, MayBeCopiedAndTruncatedAndContinuesAtItsBeginning)
{
    for (int round = 0; round < 5; ++round) {
        for (int i = 0; i < 20; ++i) {
            ExpectGoodService();
        }
        EXPECT_EQ(UnsoundLinesOfRotatedLog(), 0);
        ExpectGoodService();
        EXPECT_EQ(ReadFile(daemon.LogFile()).find("20"), 0U) << "there is no hole in place of the old records";
    }
    ExpectRadioIsDeleted();
}
