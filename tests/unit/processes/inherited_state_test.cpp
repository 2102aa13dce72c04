// The state that an item inherits from the server: descriptors, signals and limits.

#include "unit/processes/running_items.h"

#include "inherited_state.h"
#include "support/fault.h"
#include "support/process_info.h"
#include "termination_signals.h"

#include <fcntl.h>
#include <pthread.h>
#include <sys/resource.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <csignal>
#include <filesystem>
#include <iomanip>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

namespace {

constexpr rlim_t GREATEST_LIMIT = 16384;

class AnItemsProcess : public RunningItems {};

/// A signal mask in the form of /proc.
std::string Shown(const sigset_t& mask)
{
    unsigned long long bits = 0;
    for (int signal = 1; signal <= 64; ++signal) {
        if (::sigismember(&mask, signal) == 1) {
            bits |= 1ULL << (signal - 1);
        }
    }
    std::ostringstream text;
    text << std::hex << std::setw(16) << std::setfill('0') << bits;
    return text.str();
}

/// The signal mask that this process was started with: the current one without the signal that the framework blocks.
std::string MaskAtStart()
{
    sigset_t mask;
    ::pthread_sigmask(SIG_SETMASK, nullptr, &mask);
    ::sigdelset(&mask, SIGPIPE);
    return Shown(mask);
}

/// The targets of the descriptors that stay open across an exec.
std::vector<std::string> InheritableDescriptors()
{
    std::vector<std::string> open;
    for (int fd = 0; fd < 4096; ++fd) {
        const int flags = ::fcntl(fd, F_GETFD);
        if (flags != -1 && (flags & FD_CLOEXEC) == 0) {
            open.push_back(std::filesystem::read_symlink("/proc/self/fd/" + std::to_string(fd)).string());
        }
    }
    return open;
}

} // namespace

TEST_F(AnItemsProcess, HasNoDescriptorOfTheServers)
{
    const auto inheritable = InheritableDescriptors();
    const std::string path = collection.Bundle("media").Copy("one", PROBE_ITEM).Copy("two", PROBE_ITEM).Write();
    {
        // The second item is forked while the pipe of the first is open.
        std::atomic<bool> isFirst{true};
        const BeforeEach release(Call::WRITE_BYTE, [&](int) {
            if (isFirst.exchange(false)) {
                std::thread([&] { Launch(path + "/bin/two"); }).join();
            }
        });
        Launch(path + "/bin/one");
    }
    EXPECT_EQ(Reported("one", "fd"), inheritable);
    EXPECT_EQ(Reported("two", "fd"), inheritable);
}

TEST_F(AnItemsProcess, HasTheSignalsThatTheServerWasStartedWith)
{
    ASSERT_NE(::signal(SIGHUP, SIG_IGN), SIG_ERR);
    const std::string mask = MaskAtStart();
    const std::string path = collection.Bundle("media").Copy("main", PROBE_ITEM).Copy("thread", PROBE_ITEM).Write();
    Launch(path + "/bin/main");
    std::thread([&] {
        sigset_t all;
        ::sigfillset(&all);
        ::pthread_sigmask(SIG_BLOCK, &all, nullptr);
        Launch(path + "/bin/thread");
    }).join();
    for (const char* const name : {"main", "thread"}) {
        EXPECT_EQ(Reported(name, "SigBlk"), std::vector<std::string>{mask}) << name;
        EXPECT_EQ(Reported(name, "SigIgn"), std::vector<std::string>{ProcessOf::Status(::getpid(), "SigIgn")}) << name;
    }
    EXPECT_EQ(mask.substr(12), "0000") << "the test itself was started with signals blocked";
    ASSERT_NE(::signal(SIGHUP, SIG_DFL), SIG_ERR);
}

TEST_F(AnItemsProcess, HasTheSameSignalsAfterARelaunch)
{
    ::setenv("PROBE_THEN", "2", 1);
    const std::string path = collection.Bundle("media").Copy("probe", PROBE_ITEM).Write();
    Launch(path + "/bin/probe");
    ASSERT_TRUE(IsLogged("media.probe relaunch done."));
    EXPECT_EQ(Reported("probe", "SigBlk"), std::vector<std::string>{MaskAtStart()});
    EXPECT_TRUE(IsLogged("entering exit status proc....", 2)) << "the report does not come from a relaunched child";
}

TEST_F(AnItemsProcess, DiesOfASignalThatItsLauncherBlocks)
{
    const std::string path = collection.Bundle("media").Item("mediad", Sleeper()).Write();
    std::thread([&] {
        const SystemServer::TerminationSignalsBlocked blocked;
        Launch(path + "/bin/mediad");
    }).join();
    const int pid = PidOf("media.mediad");
    ASSERT_EQ(::kill(pid, SIGTERM), 0);
    EXPECT_TRUE(IsLogged("media.mediad[" + std::to_string(pid) + "] abnormal termination, signal: 15."));
}

TEST_F(AnItemsProcess, HasTheDescriptorLimitThatTheServerWasStartedWith)
{
    rlimit start{};
    ASSERT_EQ(::getrlimit(RLIMIT_NOFILE, &start), 0);
    const rlimit few{128, start.rlim_max};
    ASSERT_EQ(::setrlimit(RLIMIT_NOFILE, &few), 0);
    Start(collection.Bundle("media").Copy("probe", PROBE_ITEM));
    EXPECT_EQ(Reported("probe", "limit"), std::vector<std::string>{std::to_string(start.rlim_cur)});
    ASSERT_EQ(::setrlimit(RLIMIT_NOFILE, &start), 0);
}

TEST(TheDescriptorLimit, IsBoundedAndGivenBack)
{
    rlimit start{};
    ASSERT_EQ(::getrlimit(RLIMIT_NOFILE, &start), 0);
    const rlimit few{128, start.rlim_max};
    ASSERT_EQ(::setrlimit(RLIMIT_NOFILE, &few), 0);
    rlimit now{};
    SystemServer::BoundDescriptorLimit();
    ASSERT_EQ(::getrlimit(RLIMIT_NOFILE, &now), 0);
    EXPECT_EQ(now.rlim_cur, std::min(start.rlim_cur, GREATEST_LIMIT));
    EXPECT_EQ(now.rlim_max, start.rlim_max);
    SystemServer::RestoreDescriptorLimit();
    ASSERT_EQ(::getrlimit(RLIMIT_NOFILE, &now), 0);
    EXPECT_EQ(now.rlim_cur, start.rlim_cur);
    EXPECT_EQ(now.rlim_max, start.rlim_max);
}
