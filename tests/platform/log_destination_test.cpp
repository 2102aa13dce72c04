// Where the log goes: to standard error, a file, a FIFO, the system's journal.
#include "platform/log_fixture.h"
#include "platform/match.h"
#include "support/eventually.h"

#include <fcntl.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <fstream>
#include <thread>

using namespace std::chrono_literals;

namespace {

/// How many threads are still to come to the opening of a file before the first of them goes on.
std::atomic<int> g_missingAtOpen{0};

void MeetAtOpen()
{
    --g_missingAtOpen;
    Eventually(20s, [] { return g_missingAtOpen <= 0; });
}

} // namespace

// The linker sends the log's "open" here; it has two names, the second where the sizes of files have 64 bits.
// NOLINTBEGIN(readability-inconsistent-declaration-parameter-name)
int RealOpen(const char* path, int flags, mode_t mode) __asm__("__real_open");
int RealOpen64(const char* path, int flags, mode_t mode) __asm__("__real_open64");
int MeetingOpen(const char* path, int flags, mode_t mode) __asm__("__wrap_open");
int MeetingOpen64(const char* path, int flags, mode_t mode) __asm__("__wrap_open64");
// NOLINTEND(readability-inconsistent-declaration-parameter-name)

int MeetingOpen(const char* path, int flags, mode_t mode)
{
    MeetAtOpen();
    return RealOpen(path, flags, mode);
}

int MeetingOpen64(const char* path, int flags, mode_t mode)
{
    MeetAtOpen();
    return RealOpen64(path, flags, mode);
}

namespace {

/// Standard error is a socket, which keeps what is written to it in the pieces in which it was written.
class TheLogOnASocket : public TheLog {
protected:
    TheLogOnASocket()
    {
        if (::socketpair(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC | SOCK_NONBLOCK, 0, m_ends.data()) == 0) {
            ::fstat(m_ends[1], &m_status);
        }
    }
    ~TheLogOnASocket() override
    {
        ::close(m_ends[0]);
        ::close(m_ends[1]);
    }

    /// The names by which JOURNAL_STREAM knows the socket, and another file of that device.
    std::string Name(unsigned long long beside = 0) const
    {
        return std::to_string(m_status.st_dev) + ":" + std::to_string(m_status.st_ino + beside);
    }

    /// Runs the steps in a child with that JOURNAL_STREAM. Returns what has been written.
    std::vector<std::string> Written(const std::string& journalStream, const std::function<void()>& steps)
    {
        EXPECT_EQ(InChild([&] {
                      ::dup2(m_ends[1], STDERR_FILENO);
                      ::setenv("JOURNAL_STREAM", journalStream.c_str(), 1);
                      steps();
                  }),
                  0);
        std::vector<std::string> pieces;
        std::array<char, 8192> piece{};
        for (ssize_t size = 0; (size = ::recv(m_ends[0], piece.data(), piece.size(), 0)) > 0;) {
            pieces.emplace_back(piece.data(), static_cast<std::size_t>(size));
        }
        return pieces;
    }

private:
    std::array<int, 2> m_ends{-1, -1};
    struct stat m_status {};
};

/// The prefixes of records; "" for those that begin with their time.
std::vector<std::string> PrefixesOf(const std::vector<std::string>& records)
{
    std::vector<std::string> prefixes;
    for (const std::string& record : records) {
        const auto found = Match(record, "(<[0-9]>)?[0-9]{4}-.*\n");
        prefixes.push_back(found.empty() ? "no record: " + record : record[0] == '<' ? found[1] : "");
    }
    return prefixes;
}

void LogBothLevels()
{
    ZQ_WriteLog(4, 1, 0, 0, "src/x.cpp", 7, "information");
    ZQ_WriteLog(4, 3, 0, 0, "src/x.cpp", 7, "error");
}

using Prefixes = std::vector<std::string>;

} // namespace

TEST_F(TheLog, GoesToStandardErrorWhereNoFileIsNamed)
{
    ASSERT_EQ(InChild([] {
                  ::unsetenv("ZQ_LOG_FILE");
                  LOG("first");
              }),
              0);
    ASSERT_EQ(InChild([] {
                  ::setenv("ZQ_LOG_FILE", "", 1);
                  LOG("second");
              }),
              0);
    const auto lines = LinesOf(ContentOf(m_standardError));
    ASSERT_EQ(lines.size(), 2U);
    EXPECT_EQ(MessageOf(lines[0]), "first");
    EXPECT_EQ(MessageOf(lines[1]), "second");
}

TEST_F(TheLog, GoesToTheEndOfTheFileThatIsNamedAndNotToStandardError)
{
    std::ofstream(m_file) << "was there\n";
    ASSERT_EQ(InChildWithFile([] { LOG("new"); }), 0);
    const auto lines = LinesOf(ContentOf(m_file));
    ASSERT_EQ(lines.size(), 2U);
    EXPECT_EQ(lines[0], "was there");
    EXPECT_EQ(MessageOf(lines[1]), "new");
    EXPECT_EQ(ContentOf(m_standardError), "");
}

TEST_F(TheLog, MakesItsFileForTheUserAndTheGroupOnly)
{
    ASSERT_EQ(InChildWithFile([] {
                  ::umask(0);
                  LOG("x");
              }),
              0);
    struct stat status {};
    ASSERT_EQ(::stat(m_file.c_str(), &status), 0);
    EXPECT_EQ(status.st_mode & 07777U, 0640U);
}

TEST_F(TheLog, SaysOnceOnStandardErrorThatItsFileCannotBeOpenedAndGoesThere)
{
    ASSERT_EQ(InChild([] {
                  ::setenv("ZQ_LOG_FILE", "/nowhere/to/be/found", 1);
                  LOG("one");
                  LOG("two");
              }),
              0);
    const auto lines = LinesOf(ContentOf(m_standardError));
    ASSERT_EQ(lines.size(), 3U) << ContentOf(m_standardError);
    EXPECT_EQ(MessageOf(lines[0]), "ZQ_LOG_FILE[/nowhere/to/be/found] cannot be opened for writing, errno 2: "
                                   "the log goes to standard error.");
    EXPECT_EQ(MessageOf(lines[1]), "one");
    EXPECT_EQ(MessageOf(lines[2]), "two");
}

TEST_F(TheLog, KeepsItsFileFromThePrograms)
{
    EXPECT_EQ(InChildWithFile([&] {
                  LOG("x");
                  struct stat log {};
                  ::stat(m_file.c_str(), &log);
                  for (int fd = 3; fd < 64; ++fd) {
                      struct stat status {};
                      if (::fstat(fd, &status) == 0 && status.st_ino == log.st_ino && status.st_dev == log.st_dev) {
                          ::_exit((::fcntl(fd, F_GETFD) & FD_CLOEXEC) != 0 ? 0 : 1);
                      }
                  }
                  ::_exit(2);
              }),
              0);
}

TEST_F(TheLog, EndsALineThatAFullDiskCutOffAndTellsHowManyRecordsItAndItsChildrenLost)
{
    constexpr int records = 20;
    constexpr int childRecords = 3;
    ASSERT_EQ(InChildWithFile([] {
                  LOG("record 10.");
                  struct stat first {};
                  const char* const file = std::getenv("ZQ_LOG_FILE");
                  if (file == nullptr || ::stat(file, &first) != 0) {
                      ::_exit(1);
                  }
                  // What is over the limit is refused as by a full disk: half of a record here.
                  static_cast<void>(::signal(SIGXFSZ, SIG_IGN));
                  rlimit limit{};
                  ::getrlimit(RLIMIT_FSIZE, &limit);
                  limit.rlim_cur = static_cast<rlim_t>(first.st_size * 5 + first.st_size / 2);
                  ::setrlimit(RLIMIT_FSIZE, &limit);
                  for (int i = 1; i < records; ++i) {
                      LOG("record %d.", 10 + i);
                  }
                  const pid_t child = ::fork();
                  if (child == 0) {
                      for (int i = 0; i < childRecords; ++i) {
                          LOG("record %d of a child.", i);
                      }
                      ::_exit(0);
                  }
                  ::waitpid(child, nullptr, 0);
                  limit.rlim_cur = limit.rlim_max;
                  ::setrlimit(RLIMIT_FSIZE, &limit);
                  LOG("there is room again.");
                  LOG("and more.");
              }),
              0);
    const auto lines = LinesOf(ContentOf(m_file));
    constexpr std::size_t whole = 5;
    ASSERT_EQ(lines.size(), whole + 4) << ContentOf(m_file);
    EXPECT_EQ(MessageOf(lines[whole - 1]), "record 14.");
    EXPECT_EQ(Match(lines[whole], ".*there is room again.*").size(), 0U) << "joined to what was cut off";
    EXPECT_EQ(MessageOf(lines[whole + 1]), std::to_string(records + childRecords - whole) +
                                               " earlier records are lost: no room for them, or nobody has read them.");
    EXPECT_EQ(MessageOf(lines[whole + 2]), "there is room again.");
    EXPECT_EQ(MessageOf(lines[whole + 3]), "and more.");
}

TEST_F(TheLog, IsNotKeptWaitingByAFifoThatNobodyReads)
{
    ASSERT_EQ(::mkfifo(m_file.c_str(), 0600), 0);
    const int fifo = ::open(m_file.c_str(), O_RDWR | O_NONBLOCK | O_CLOEXEC); // what is in it outlives the child
    ASSERT_EQ(InChildWithFile([] {
                  for (int i = 0; i < 3000; ++i) {
                      LOG("record %d.", i);
                  }
              }),
              0);
    std::string text(1UL << 20U, '\0');
    const ssize_t size = ::read(fifo, text.data(), text.size());
    ::close(fifo);
    ASSERT_GT(size, 0);
    text.resize(static_cast<std::size_t>(size));
    EXPECT_EQ(text.back(), '\n') << "what is lost is lost whole";
    const auto lines = LinesOf(text);
    for (std::size_t i = 0; i < lines.size(); ++i) {
        ASSERT_EQ(MessageOf(lines[i]), "record " + std::to_string(i) + ".");
    }
}

TEST_F(TheLog, OnAPipeWhoseReaderHasGoneKillsNobodyAndChangesNoSignal)
{
    EXPECT_EQ(InChild([] {
                  std::array<int, 2> ends{};
                  if (::pipe2(ends.data(), O_CLOEXEC) != 0) {
                      ::_exit(1);
                  }
                  ::dup2(ends[1], STDERR_FILENO);
                  ::unsetenv("ZQ_LOG_FILE");
                  static_cast<void>(::signal(SIGPIPE, SIG_DFL));
                  LOG("read by somebody");
                  ::close(ends[0]);
                  LOG("read by nobody");
                  sigset_t pending;
                  sigset_t blocked;
                  ::sigpending(&pending);
                  ::pthread_sigmask(SIG_SETMASK, nullptr, &blocked);
                  ::_exit(sigismember(&pending, SIGPIPE) == 0 && sigismember(&blocked, SIGPIPE) == 0 ? 0 : 2);
              }),
              0);
}

TEST_F(TheLog, AgreesOnOneFileWhenManyThreadsLogFirst)
{
    ASSERT_EQ(InChildWithFile([] {
                  std::vector<std::thread> all;
                  all.reserve(8);
                  for (int i = 0; i < 8; ++i) {
                      all.emplace_back([] { LOG("first"); });
                  }
                  for (std::thread& one : all) {
                      one.join();
                  }
                  int open = 0;
                  for (int fd = 3; fd < 64; ++fd) {
                      open += ::fcntl(fd, F_GETFL) >= 0 && (::fcntl(fd, F_GETFL) & O_APPEND) != 0 ? 1 : 0;
                  }
                  // The file that stands for standard error here is the other one.
                  ::_exit(open == 2 ? 0 : 1);
              }),
              0);
    EXPECT_EQ(LinesOf(ContentOf(m_file)).size(), 8U);
}

TEST_F(TheLog, SaysOnceThatItsFileCannotBeOpenedHoweverManyThreadsFindOut)
{
    constexpr int threads = 4;
    ASSERT_EQ(InChild([] {
                  ::setenv("ZQ_LOG_FILE", "/nowhere/to/be/found", 1);
                  g_missingAtOpen = threads;
                  std::vector<std::thread> all;
                  all.reserve(threads);
                  for (int i = 0; i < threads; ++i) {
                      all.emplace_back([] { LOG("first"); });
                  }
                  for (std::thread& one : all) {
                      one.join();
                  }
              }),
              0);
    const auto lines = LinesOf(ContentOf(m_standardError));
    EXPECT_EQ(lines.size(), threads + 1U) << ContentOf(m_standardError);
    EXPECT_EQ(std::count_if(lines.begin(), lines.end(),
                            [](const std::string& line) { return MessageOf(line).rfind("ZQ_LOG_FILE[", 0) == 0; }),
              1);
}

TEST_F(TheLogOnASocket, GivesTheJournalEachRecordsPriority)
{
    EXPECT_EQ(PrefixesOf(Written(Name(), LogBothLevels)), (Prefixes{"<6>", "<3>"}));
}

TEST_F(TheLogOnASocket, GivesTheJournalThePrioritiesOfAChildsRecordsToo)
{
    const auto logInChild = [] {
        const pid_t child = ::fork();
        if (child == 0) {
            LogBothLevels();
            ::_exit(0);
        }
        ::waitpid(child, nullptr, 0);
        LOG("parent");
    };
    EXPECT_EQ(PrefixesOf(Written(Name(), logInChild)), (Prefixes{"<6>", "<3>", "<6>"}));
}

TEST_F(TheLogOnASocket, GivesTheJournalTheRecordOfALogThatCannotBeOpenedWithItsPriority)
{
    const auto logToNowhere = [] {
        ::setenv("ZQ_LOG_FILE", "/nowhere/to/be/found", 1);
        LOG("first");
    };
    EXPECT_EQ(PrefixesOf(Written(Name(), logToNowhere)), (Prefixes{"<3>", "<6>"}));
}

TEST_F(TheLogOnASocket, WritesARecordForTheJournalInOnePieceOfFourKibibytesAtMost)
{
    const auto records = Written(Name(), [] { LOG("%s", std::string(10000, 'x').c_str()); });
    ASSERT_EQ(records.size(), 1U);
    EXPECT_EQ(records[0].size(), 4096U);
    EXPECT_EQ(records[0].back(), '\n');
}

TEST_F(TheLogOnASocket, GivesNoPriorityWhereJournalStreamNamesAnotherOrNothing)
{
    const std::string name = Name();
    for (const std::string& other :
         {Name(1), "1" + name, name + "0", name + " ", name.substr(0, name.find(':')),
          name.substr(0, name.find(':') + 1), name.substr(name.find(':')), std::string(), std::string("journal")}) {
        EXPECT_EQ(PrefixesOf(Written(other, LogBothLevels)), (Prefixes{"", ""})) << other;
    }
}

TEST_F(TheLogOnASocket, GivesNoPriorityInAFile)
{
    const auto logToFile = [this] {
        ::setenv("ZQ_LOG_FILE", m_file.c_str(), 1);
        LogBothLevels();
    };
    EXPECT_EQ(Written(Name(), logToFile).size(), 0U);
    const auto lines = LinesOf(ContentOf(m_file));
    ASSERT_EQ(lines.size(), 2U);
    EXPECT_EQ(MessageOf(lines[0]), "information");
}
