// Records and their writers: columns, languages, threads, children.
#include "platform/log_fixture.h"
#include "support/match.h"

#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <ctime>
#include <fstream>
#include <map>
#include <thread>

namespace {

void SetLanguage(const std::map<std::string, std::string>& variables)
{
    for (const char* name : {"LC_ALL", "LC_MESSAGES", "LANG"}) {
        ::unsetenv(name);
    }
    for (const auto& [name, value] : variables) {
        ::setenv(name.c_str(), value.c_str(), 1);
    }
}

constexpr int RECORDS = 400;
constexpr int FORKS_EVERY = 50;

/// Logs records of growing length and forks now and then. Each child logs a record of its own. Ends the process when a
/// child fails.
void LogAndFork(int thread)
{
    for (int i = 0; i < RECORDS; ++i) {
        LOG("thread %d record %d %s", thread, i, std::string(static_cast<std::size_t>(i), 'x').c_str());
        if (i % FORKS_EVERY != 0) {
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
}

} // namespace

TEST_F(TheLog, WritesOneLineWithTheCallersProcessThreadAndPlace)
{
    const std::time_t before = std::time(nullptr);
    ASSERT_EQ(InChildWithFile([] { ZQ_WriteLog(4, 3, 1, 0, "src/x.cpp", 12, "bundle[%s] %d", "media", 5); }), 0);
    const std::time_t after = std::time(nullptr);

    const std::string record = ReadFile(m_file);
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
    const std::string pidAndTid = " " + std::to_string(m_child) + " " + ReadFile(tidFile) + " ";
    EXPECT_NE(ReadFile(m_file).find(pidAndTid), std::string::npos) << ReadFile(m_file);
    EXPECT_NE(ReadFile(tidFile), std::to_string(m_child));
}

TEST_F(TheLog, NamesTheChildAfterAForkOfAThreadThatHasLogged)
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
    const auto lines = Lines(ReadFile(m_file));
    ASSERT_EQ(lines.size(), 3U);
    const auto numbers = Match(lines[1], ".* INFO 4 0 ([0-9]+ [0-9]+) src/x.cpp:7 child ([0-9]+)\\.");
    ASSERT_EQ(numbers.size(), 3U) << lines[1];
    EXPECT_EQ(numbers[1], numbers[2] + " " + numbers[2]);
    const std::string shape = ".* INFO 4 0 ([0-9]+ [0-9]+) .*";
    EXPECT_EQ(Match(lines[0], shape).at(1), Match(lines[2], shape).at(1));
}

TEST_F(TheLog, KeepsErrno)
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

TEST_F(TheLog, AcceptsANullText)
{
    const char* volatile null = nullptr;
    ASSERT_EQ(InChildWithFile([&] { LOG("name %s.", null); }), 0);
    EXPECT_EQ(MessageOf(Lines(ReadFile(m_file)).at(0)), "name (null).");
}

TEST_F(TheLog, WritesALanguageRecordWithFlagZeroAndNoPlace)
{
    ASSERT_EQ(InChildWithFile([] {
                  SetLanguage({});
                  ZQ_WriteLanguageLog(5, 3, "child %d ended", "second %d", 77);
              }),
              0);
    const std::string pid = std::to_string(m_child);
    EXPECT_NE(ReadFile(m_file).find("Z ERROR 5 0 " + pid + " " + pid + " - child 77 ended\n"), std::string::npos)
        << ReadFile(m_file);
}

TEST_F(TheLog, ChoosesTheLanguageByTheFirstVariableThatIsSet)
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
        EXPECT_EQ(MessageOf(Lines(ReadFile(m_file)).at(0)), choice.language + " 1");
    }
}

TEST_F(TheLog, KeepsRecordsOfEightThreadsAndTheirChildrenWhole)
{
    constexpr int threads = 8;
    ASSERT_EQ(InChildWithFile([] {
                  std::vector<std::thread> all;
                  all.reserve(threads);
                  for (int thread = 0; thread < threads; ++thread) {
                      all.emplace_back(LogAndFork, thread);
                  }
                  for (std::thread& one : all) {
                      one.join();
                  }
              }),
              0);
    std::map<std::string, int> seen;
    for (const std::string& line : Lines(ReadFile(m_file))) {
        ++seen[MessageOf(line)];
    }
    std::map<std::string, int> expected;
    for (int thread = 0; thread < threads; ++thread) {
        for (int i = 0; i < RECORDS; ++i) {
            const std::string text(static_cast<std::size_t>(i), 'x');
            ++expected["thread " + std::to_string(thread) + " record " + std::to_string(i) + " " + text];
            if (i % FORKS_EVERY == 0) {
                ++expected["child of " + std::to_string(thread) + " at " + std::to_string(i)];
            }
        }
    }
    EXPECT_EQ(seen, expected);
}
