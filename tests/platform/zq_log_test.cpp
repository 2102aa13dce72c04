#include <zq_log.h>

#include "platform/match.h"
#include "support/temporary_directory.h"

#include <fcntl.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <array>
#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <functional>
#include <map>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

namespace {

constexpr int INFORMATION = 1;

#define LOG(...) ZQ_WriteLog(4, INFORMATION, 0, 0, "src/x.cpp", 7, __VA_ARGS__)

std::string ContentOf(const std::string& path)
{
    std::ifstream file(path, std::ios::binary);
    std::ostringstream content;
    content << file.rdbuf();
    return content.str();
}

std::vector<std::string> LinesOf(const std::string& text)
{
    std::vector<std::string> lines;
    std::istringstream stream(text);
    for (std::string line; std::getline(stream, line);) {
        lines.push_back(line);
    }
    return lines;
}

constexpr char TIME[] = "([0-9]{4}-[0-9]{2}-[0-9]{2}T[0-9]{2}:[0-9]{2}:[0-9]{2})\\.[0-9]{6}Z";

/// What a record says behind its columns.
std::string MessageOf(const std::string& record)
{
    const auto found = Match(record, std::string(TIME) + " [A-Z]+ [0-9]+ [0-9]+ [0-9]+ [0-9]+ [^ ]+ (.*)");
    return found.empty() ? "no record: " + record : found[2];
}

/// The log decides once in a process where it goes, so each test logs in a child of its own.
class TheLog : public ::testing::Test {
protected:
    /// Runs the steps in a child whose standard error is a file. Returns the child's exit status.
    int InChild(const std::function<void()>& steps)
    {
        const pid_t child = ::fork();
        if (child == 0) {
            const int fd = ::open(m_standardError.c_str(), O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0600);
            ::dup2(fd, STDERR_FILENO);
            steps();
            ::_exit(0);
        }
        m_child = child;
        int status = -1;
        ::waitpid(child, &status, 0);
        return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
    }

    /// The same, with the log in a file.
    int InChildWithFile(const std::function<void()>& steps)
    {
        return InChild([&] {
            ::setenv("ZQ_LOG_FILE", m_file.c_str(), 1);
            steps();
        });
    }

    TemporaryDirectory m_directory;
    const std::string m_file = m_directory / "log";
    const std::string m_standardError = m_directory / "stderr";
    pid_t m_child = -1;
};

void SetLanguage(const std::map<std::string, std::string>& variables)
{
    for (const char* name : {"LC_ALL", "LC_MESSAGES", "LANG"}) {
        ::unsetenv(name);
    }
    for (const auto& [name, value] : variables) {
        ::setenv(name.c_str(), value.c_str(), 1);
    }
}

} // namespace

TEST_F(TheLog, WritesOneLineWithTheCallersProcessThreadAndPlace)
{
    const std::time_t before = std::time(nullptr);
    ASSERT_EQ(InChildWithFile([] { ZQ_WriteLog(4, 3, 1, 0, "src/x.cpp", 12, "bundle[%s] %d", "media", 5); }), 0);
    const std::time_t after = std::time(nullptr);

    const std::string record = ContentOf(m_file);
    const std::string pid = std::to_string(m_child);
    const auto found =
        Match(record, std::string(TIME) + " ERROR 4 1 " + pid + " " + pid + " src/x\\.cpp:12 bundle\\[media\\] 5\n");
    ASSERT_FALSE(found.empty()) << record;
    std::tm utc{};
    ASSERT_NE(::strptime(found[1].c_str(), "%Y-%m-%dT%H:%M:%S", &utc), nullptr);
    EXPECT_GE(::timegm(&utc), before);
    EXPECT_LE(::timegm(&utc), after);
}

TEST_F(TheLog, NamesTheThreadThatLogs)
{
    const std::string tidFile = m_directory / "tid";
    ASSERT_EQ(InChildWithFile([&] {
                  std::thread([&] {
                      LOG("x");
                      std::ofstream(tidFile) << ::syscall(SYS_gettid);
                  }).join();
              }),
              0);
    const std::string pidAndTid = " " + std::to_string(m_child) + " " + ContentOf(tidFile) + " ";
    EXPECT_NE(ContentOf(m_file).find(pidAndTid), std::string::npos) << ContentOf(m_file);
    EXPECT_NE(ContentOf(tidFile), std::to_string(m_child));
}

TEST_F(TheLog, NamesTheChildAfterAForkOnAThreadThatHasLogged)
{
    ASSERT_EQ(InChildWithFile([] {
                  std::thread([] {
                      LOG("parent");
                      const pid_t child = ::fork();
                      if (child == 0) {
                          LOG("child %d.", ::getpid());
                          ::_exit(0);
                      }
                      ::waitpid(child, nullptr, 0);
                      LOG("parent again");
                  }).join();
              }),
              0);
    const auto lines = LinesOf(ContentOf(m_file));
    ASSERT_EQ(lines.size(), 3U);
    const auto numbers = Match(lines[1], ".* INFO 4 0 ([0-9]+ [0-9]+) src/x.cpp:7 child ([0-9]+)\\.");
    ASSERT_EQ(numbers.size(), 3U) << lines[1];
    EXPECT_EQ(numbers[1], numbers[2] + " " + numbers[2]);
    const std::string shape = ".* INFO 4 0 ([0-9]+ [0-9]+) .*";
    EXPECT_EQ(Match(lines[0], shape).at(1), Match(lines[2], shape).at(1));
}

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

TEST_F(TheLog, LeavesErrnoAsItWas)
{
    EXPECT_EQ(InChild([] {
                  ::setenv("ZQ_LOG_FILE", "/nowhere/to/be/found", 1);
                  ::close(STDERR_FILENO);
                  errno = ENOTEMPTY;
                  LOG("nowhere to write");
                  ::_exit(errno == ENOTEMPTY ? 0 : 1);
              }),
              0);
    EXPECT_EQ(InChildWithFile([] {
                  errno = ENOTEMPTY;
                  LOG("x");
                  ::_exit(errno == ENOTEMPTY ? 0 : 1);
              }),
              0);
}

TEST_F(TheLog, TakesANullTextWithoutHarm)
{
    const char* volatile null = nullptr;
    ASSERT_EQ(InChildWithFile([&] { LOG("name %s.", null); }), 0);
    EXPECT_EQ(MessageOf(LinesOf(ContentOf(m_file)).at(0)), "name (null).");
}

TEST_F(TheLog, WritesALanguageRecordWithFlagZeroAndNoPlace)
{
    ASSERT_EQ(InChildWithFile([] {
                  SetLanguage({});
                  ZQ_WriteLanguageLog(5, 3, "child %d ended", "second %d", 77);
              }),
              0);
    const std::string pid = std::to_string(m_child);
    EXPECT_NE(ContentOf(m_file).find("Z ERROR 5 0 " + pid + " " + pid + " - child 77 ended\n"), std::string::npos)
        << ContentOf(m_file);
}

TEST_F(TheLog, ChoosesTheLanguageByTheFirstVariableThatSaysAnything)
{
    struct Choice {
        std::map<std::string, std::string> variables;
        std::string language;
    };
    const std::vector<Choice> choices{
        {{}, "english"},
        {{{"LANG", "zh_CN.UTF-8"}}, "second"},
        {{{"LC_MESSAGES", "zh"}}, "second"},
        {{{"LC_ALL", "zh_TW"}}, "second"},
        {{{"LANG", "en_GB.UTF-8"}}, "english"},
        {{{"LC_ALL", "C"}, {"LC_MESSAGES", "zh_CN"}, {"LANG", "zh_CN"}}, "english"},
        {{{"LC_MESSAGES", "de_DE"}, {"LANG", "zh_CN"}}, "english"},
        {{{"LC_ALL", ""}, {"LC_MESSAGES", "zh_CN"}, {"LANG", "C"}}, "second"},
        {{{"LC_ALL", ""}, {"LC_MESSAGES", ""}, {"LANG", "zh_CN"}}, "second"},
        {{{"LC_ALL", "Czh"}}, "english"},
        {{{"LANG", "z"}}, "english"},
    };
    for (const Choice& choice : choices) {
        ::unlink(m_file.c_str());
        ASSERT_EQ(InChildWithFile([&] {
                      SetLanguage(choice.variables);
                      ZQ_WriteLanguageLog(5, 3, "english %d", "second %d", 1);
                  }),
                  0);
        EXPECT_EQ(MessageOf(LinesOf(ContentOf(m_file)).at(0)), choice.language + " 1");
    }
}

TEST_F(TheLog, LosesAndMixesNothingOfEightThreadsAndTheChildrenThatTheyFork)
{
    constexpr int threads = 8;
    constexpr int records = 400;
    constexpr int forksEvery = 50;
    ASSERT_EQ(InChildWithFile([] {
                  const auto work = [](int thread) {
                      for (int i = 0; i < records; ++i) {
                          LOG("thread %d record %d %s", thread, i,
                              std::string(static_cast<std::size_t>(i), 'x').c_str());
                          if (i % forksEvery != 0) {
                              continue;
                          }
                          const pid_t child = ::fork();
                          if (child == 0) {
                              LOG("child of %d at %d", thread, i);
                              ::execl("/bin/true", "true", nullptr);
                              ::_exit(1);
                          }
                          int status = -1;
                          if (::waitpid(child, &status, 0) != child || status != 0) {
                              ::_exit(1);
                          }
                      }
                  };
                  std::vector<std::thread> all;
                  all.reserve(threads);
                  for (int thread = 0; thread < threads; ++thread) {
                      all.emplace_back(work, thread);
                  }
                  for (std::thread& one : all) {
                      one.join();
                  }
              }),
              0);
    std::map<std::string, int> seen;
    for (const std::string& line : LinesOf(ContentOf(m_file))) {
        ++seen[MessageOf(line)];
    }
    std::map<std::string, int> expected;
    for (int thread = 0; thread < threads; ++thread) {
        for (int i = 0; i < records; ++i) {
            const std::string text(static_cast<std::size_t>(i), 'x');
            ++expected["thread " + std::to_string(thread) + " record " + std::to_string(i) + " " + text];
            if (i % forksEvery == 0) {
                ++expected["child of " + std::to_string(thread) + " at " + std::to_string(i)];
            }
        }
    }
    EXPECT_EQ(seen, expected);
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
