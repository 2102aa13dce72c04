// Where the log goes, to standard error, a file or a FIFO, and what happens when it cannot be written.
#include "platform/log_fixture.h"
#include "support/match.h"

#include <fcntl.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <fstream>
#include <thread>

namespace {

void LimitLog(rlim_t size)
{
    rlimit limit{};
    ::getrlimit(RLIMIT_FSIZE, &limit);
    limit.rlim_cur = std::min(size, limit.rlim_max);
    ::setrlimit(RLIMIT_FSIZE, &limit);
}

/// Called when the log holds one record. Limits its size to four and a half more, as a full disk would.
void LeaveRoomForFourAndAHalf()
{
    struct stat first {};
    const char* const file = std::getenv("ZQ_LOG_FILE");
    if (file == nullptr || ::stat(file, &first) != 0) {
        ::_exit(1);
    }
    static_cast<void>(::signal(SIGXFSZ, SIG_IGN));
    LimitLog(static_cast<rlim_t>(first.st_size * 5 + first.st_size / 2));
}

} // namespace

TEST_F(TheLog, GoesToStandardErrorIfNoFileIsNamed)
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
    const auto lines = Lines(ReadFile(m_standardError));
    ASSERT_EQ(lines.size(), 2U);
    EXPECT_EQ(MessageOf(lines[0]), "first");
    EXPECT_EQ(MessageOf(lines[1]), "second");
}

TEST_F(TheLog, GoesToTheEndOfTheFileThatIsNamedAndNotToStandardError)
{
    std::ofstream(m_file) << "was there\n";
    ASSERT_EQ(InChildWithFile([] { LOG("new"); }), 0);
    const auto lines = Lines(ReadFile(m_file));
    ASSERT_EQ(lines.size(), 2U);
    EXPECT_EQ(lines[0], "was there");
    EXPECT_EQ(MessageOf(lines[1]), "new");
    EXPECT_EQ(ReadFile(m_standardError), "");
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

TEST_F(TheLog, ReportsOnceThatItsFileCannotBeOpenedAndGoesToStandardError)
{
    ASSERT_EQ(InChild([] {
                  ::setenv("ZQ_LOG_FILE", "/nowhere/to/be/found", 1);
                  LOG("one");
                  LOG("two");
              }),
              0);
    const auto lines = Lines(ReadFile(m_standardError));
    ASSERT_EQ(lines.size(), 3U) << ReadFile(m_standardError);
    EXPECT_EQ(MessageOf(lines[0]), "ZQ_LOG_FILE[/nowhere/to/be/found] cannot be opened for writing, errno 2: "
                                   "the log goes to standard error.");
    EXPECT_EQ(MessageOf(lines[1]), "one");
    EXPECT_EQ(MessageOf(lines[2]), "two");
}

TEST_F(TheLog, LetsNoProgramInheritItsFile)
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

TEST_F(TheLog, CompletesALineThatAFullDiskCutOffAndCountsLostRecordsOfAllProcesses)
{
    constexpr int records = 20;
    constexpr int childRecords = 3;
    ASSERT_EQ(InChildWithFile([] {
                  LOG("record 10.");
                  LeaveRoomForFourAndAHalf();
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
                  LimitLog(RLIM_INFINITY);
                  LOG("there is room again.");
                  LOG("and more.");
              }),
              0);
    const auto lines = Lines(ReadFile(m_file));
    constexpr std::size_t whole = 5;
    ASSERT_EQ(lines.size(), whole + 4) << ReadFile(m_file);
    EXPECT_EQ(MessageOf(lines[whole - 1]), "record 14.");
    EXPECT_EQ(Match(lines[whole], ".*there is room again.*").size(), 0U) << "it is joined to the cut-off record";
    EXPECT_EQ(MessageOf(lines[whole + 1]), std::to_string(records + childRecords - whole) +
                                               " earlier records are lost: no room for them, or nobody has read them.");
    EXPECT_EQ(MessageOf(lines[whole + 2]), "there is room again.");
    EXPECT_EQ(MessageOf(lines[whole + 3]), "and more.");
}

TEST_F(TheLog, DoesNotWaitForAFifoWithoutAReader)
{
    ASSERT_EQ(::mkfifo(m_file.c_str(), 0600), 0);
    const int fifo = ::open(m_file.c_str(), O_RDWR | O_NONBLOCK | O_CLOEXEC); // keeps the content when the child ends
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
    EXPECT_EQ(text.back(), '\n') << "only whole records are lost";
    const auto lines = Lines(text);
    for (std::size_t i = 0; i < lines.size(); ++i) {
        ASSERT_EQ(MessageOf(lines[i]), "record " + std::to_string(i) + ".");
    }
}

TEST_F(TheLog, OnAPipeWithoutAReaderKillsNoProcessAndChangesNoSignal)
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

TEST_F(TheLog, OpensOneFileWhenManyThreadsLogFirst)
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
                  // The second file is the one that replaces standard error here.
                  ::_exit(open == 2 ? 0 : 1);
              }),
              0);
    EXPECT_EQ(Lines(ReadFile(m_file)).size(), 8U);
}
