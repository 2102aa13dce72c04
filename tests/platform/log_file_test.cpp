// The files that ZQ_LOG_FILE may and may not name: links, the standard streams, terminals.
#include "platform/log_fixture.h"
#include "support/eventually.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <termios.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <cerrno>
#include <cstdlib>
#include <fstream>
#include <thread>

using namespace std::chrono_literals;

namespace {

/// The number of threads that have not yet reached the opening of a file. The others wait there until it is 0.
std::atomic<int> g_missingAtOpen{0};
std::atomic<int> g_flagsOfOpen{0};

void MeetAtOpen(int flags)
{
    g_flagsOfOpen = flags;
    --g_missingAtOpen;
    Eventually(20s, [] { return g_missingAtOpen <= 0; });
}

} // namespace

// The linker replaces the log's "open" by these functions. The second name is the one with file sizes of 64 bits.
int RealOpen(const char* path, int flags, mode_t mode) __asm__("__real_open");
int RealOpen64(const char* path, int flags, mode_t mode) __asm__("__real_open64");
int MeetingOpen(const char* path, int flags, mode_t mode) __asm__("__wrap_open");
int MeetingOpen64(const char* path, int flags, mode_t mode) __asm__("__wrap_open64");

int MeetingOpen(const char* path, int flags, mode_t mode)
{
    MeetAtOpen(flags);
    return RealOpen(path, flags, mode);
}

int MeetingOpen64(const char* path, int flags, mode_t mode)
{
    MeetAtOpen(flags);
    return RealOpen64(path, flags, mode);
}

namespace {

constexpr uid_t NOBODY = 65534;

/// ZQ_LOG_FILE can name a terminal.
class TheLogOnATerminal : public TheLog {
protected:
    void SetUp() override
    {
        if (m_master < 0) {
            GTEST_SKIP() << "a terminal cannot be created";
        }
        ASSERT_EQ(::grantpt(m_master), 0);
        ASSERT_EQ(::unlockpt(m_master), 0);
        std::array<char, 64> name{};
        ASSERT_EQ(::ptsname_r(m_master, name.data(), name.size()), 0);
        m_terminal = name.data();
    }
    ~TheLogOnATerminal() override { ::close(m_master); }

    const int m_master = ::posix_openpt(O_RDWR | O_NOCTTY | O_CLOEXEC);
    std::string m_terminal;
};

} // namespace

TEST_F(TheLog, ReportsOnceForAllThreadsThatItsFileCannotBeOpened)
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
    const auto lines = Lines(ReadFile(m_standardError));
    EXPECT_EQ(lines.size(), threads + 1U) << ReadFile(m_standardError);
    EXPECT_EQ(std::count_if(lines.begin(), lines.end(),
                            [](const std::string& line) { return MessageOf(line).rfind("ZQ_LOG_FILE[", 0) == 0; }),
              1);
}

TEST_F(TheLog, FollowsALinkThatOnlyItsUserCanHaveMade)
{
    ASSERT_EQ(::symlink((m_directory / "target").c_str(), m_file.c_str()), 0);
    ASSERT_EQ(InChildWithFile([] { LOG("followed"); }), 0);
    EXPECT_EQ(MessageOf(Lines(ReadFile(m_directory / "target")).at(0)), "followed");
}

TEST_F(TheLog, FollowsNoLinkWhereOtherUsersMayMakeOne)
{
    ASSERT_EQ(::symlink((m_directory / "target").c_str(), m_file.c_str()), 0);
    for (const mode_t mode : {01777U, 0702U, 0770U}) {
        ASSERT_EQ(::chmod(m_directory.Path().c_str(), mode), 0);
        ::unlink(m_standardError.c_str());
        ASSERT_EQ(InChildWithFile([] { LOG("not followed"); }), 0);
        ExpectComplaintOf(ELOOP);
        EXPECT_NE(::access((m_directory / "target").c_str(), F_OK), 0) << "the target is not created either";
    }
}

TEST_F(TheLog, FollowsNoLinkInADirectoryOfAnotherUser)
{
    if (::geteuid() != 0) {
        GTEST_SKIP() << "needs root, to give a directory to another user";
    }
    ASSERT_EQ(::chown(m_directory.Path().c_str(), NOBODY, NOBODY), 0);
    ASSERT_EQ(::symlink((m_directory / "target").c_str(), m_file.c_str()), 0);
    ASSERT_EQ(InChildWithFile([] { LOG("not followed"); }), 0);
    ExpectComplaintOf(ELOOP);
}

TEST_F(TheLog, OfAnotherUserThanRootFollowsLinksOfBoth)
{
    if (::geteuid() != 0) {
        GTEST_SKIP() << "needs root, to become another user";
    }
    const std::string target = m_directory / "target";
    std::ofstream{target}.close();
    ASSERT_EQ(::chmod(target.c_str(), 0666), 0);
    ASSERT_EQ(::symlink(target.c_str(), m_file.c_str()), 0);
    ASSERT_EQ(::chmod(m_directory.Path().c_str(), 0755), 0);
    for (const uid_t owner : {uid_t{0}, NOBODY}) {
        ASSERT_EQ(::chown(m_directory.Path().c_str(), owner, owner), 0);
        ASSERT_EQ(InChildWithFile([] {
                      if (::setgid(NOBODY) != 0 || ::setuid(NOBODY) != 0) {
                          ::_exit(1);
                      }
                      LOG("followed");
                  }),
                  0);
    }
    EXPECT_EQ(Lines(ReadFile(target)).size(), 2U);
}

TEST_F(TheLog, ChecksTheWorkingDirectoryForAFileWithoutAPath)
{
    const auto inTheDirectory = [this] {
        if (::chdir(m_directory.Path().c_str()) != 0 || ::setenv("ZQ_LOG_FILE", "log", 1) != 0) {
            ::_exit(1);
        }
        LOG("followed");
    };
    ASSERT_EQ(::symlink("target", m_file.c_str()), 0);
    ASSERT_EQ(InChild(inTheDirectory), 0);
    EXPECT_EQ(Lines(ReadFile(m_directory / "target")).size(), 1U);
    ASSERT_EQ(::chmod(m_directory.Path().c_str(), 0777), 0);
    ASSERT_EQ(InChild(inTheDirectory), 0);
    EXPECT_EQ(Lines(ReadFile(m_directory / "target")).size(), 1U);
}

TEST_F(TheLog, MakesItsFileEvenWhereOthersMayMakeALink)
{
    ASSERT_EQ(::chmod(m_directory.Path().c_str(), 01777), 0);
    ASSERT_EQ(InChildWithFile([] { LOG("made"); }), 0);
    ASSERT_EQ(InChildWithFile([] { LOG("and written to"); }), 0);
    EXPECT_EQ(Lines(ReadFile(m_file)).size(), 2U);
}

TEST_F(TheLog, GoesToTheStandardStreamsThatAreNamedAsFiles)
{
    for (const std::string file : {"/dev/stderr", "/dev/stdout", "/proc/self/fd/1"}) {
        ::unlink(m_standardError.c_str());
        ASSERT_EQ(InChild([&] {
                      ::dup2(STDERR_FILENO, STDOUT_FILENO);
                      ::setenv("ZQ_LOG_FILE", file.c_str(), 1);
                      LOG("to a stream");
                  }),
                  0);
        const auto lines = Lines(ReadFile(m_standardError));
        ASSERT_EQ(lines.size(), 1U) << file << ": " << ReadFile(m_standardError);
        EXPECT_EQ(MessageOf(lines[0]), "to a stream");
    }
}

TEST_F(TheLog, GoesToAPipeThatIsNamedAsAFile)
{
    std::array<int, 2> ends{};
    ASSERT_EQ(::pipe2(ends.data(), O_CLOEXEC | O_NONBLOCK), 0);
    ASSERT_EQ(InChild([&] {
                  ::dup2(ends[1], STDERR_FILENO);
                  ::setenv("ZQ_LOG_FILE", "/dev/stderr", 1);
                  LOG("to a pipe");
              }),
              0);
    std::string text(4096, '\0');
    const ssize_t size = ::read(ends[0], text.data(), text.size());
    text.resize(size > 0 ? static_cast<std::size_t>(size) : 0);
    EXPECT_EQ(MessageOf(Lines(text).at(0)), "to a pipe");
    ::close(ends[0]);
    ::close(ends[1]);
}

TEST_F(TheLogOnATerminal, DoesNotBecomeTheControllingTerminal)
{
    EXPECT_EQ(InChild([this] {
                  ::setsid();
                  ::setenv("ZQ_LOG_FILE", m_terminal.c_str(), 1);
                  LOG("written");
                  if ((g_flagsOfOpen & O_NOCTTY) == 0) { // not every kernel needs the flag for writing
                      ::_exit(2);
                  }
                  ::_exit(::open("/dev/tty", O_RDWR | O_CLOEXEC) == -1 && errno == ENXIO ? 0 : 1);
              }),
              0);
    std::array<char, 4096> text{};
    EXPECT_GT(::read(m_master, text.data(), text.size()), 0);
}

TEST_F(TheLogOnATerminal, ThatIsHeldDoesNotWait)
{
    const int slave = ::open(m_terminal.c_str(), O_RDWR | O_NOCTTY | O_CLOEXEC);
    ASSERT_EQ(::tcflow(slave, TCOOFF), 0);
    EXPECT_EQ(InChild([this] {
                  ::alarm(30 * SLOWNESS);
                  ::setenv("ZQ_LOG_FILE", m_terminal.c_str(), 1);
                  for (int i = 0; i < 1000; ++i) {
                      LOG("record %d", i);
                  }
              }),
              0)
        << "it has waited until the alarm ended it";
    ::close(slave);
}
