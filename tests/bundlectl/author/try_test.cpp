// bundlectl try.
#include "bundlectl/author/trial_test.h"
#include "support/eventually.h"
#include "support/files.h"
#include "support/shell.h"

#include <gtest/gtest.h>

#include <unistd.h>

#include <csignal>
#include <filesystem>
#include <string>
#include <vector>

using namespace std::chrono_literals;

namespace {

namespace fs = std::filesystem;

constexpr const char SERVES[] = "bundle server start running...";

class Trying : public TrialTest {
public:
    Trying() { bundles.Bundle("radio").Item("tuner.sh", Sleep()).Write(); }

    static bool Shows(const Program& program, const std::string& text)
    {
        return Eventually(20s, [&] { return Has(program.Output(), text); });
    }

    /// Ends it after it has shown a text.
    static Ended RunUntil(const std::vector<std::string>& arguments, const std::string& text)
    {
        Program program(Words(arguments));
        EXPECT_TRUE(Shows(program, text)) << program.Output() << program.Errors();
        program.Signal(SIGTERM);
        const int status = program.Wait();
        return {status, program.Output(), program.Errors()};
    }

    std::string Radio() const { return bundles / "radio"; }
};

/// The command with which root becomes another user. Empty when the user is not root.
std::vector<std::string> AsNobody()
{
    if (::geteuid() != 0) {
        return {};
    }
    return {"/usr/bin/setpriv", "--reuid=65534", "--regid=65534", "--clear-groups"};
}

} // namespace

TEST_F(Trying, SaysThatABundleIsActive)
{
    const Ended ended = RunUntil({"try", Radio(), "--expect", "active"}, SERVES);
    EXPECT_EQ(ended.status, 0) << ended.output << ended.errors;
    EXPECT_TRUE(Tells(ended, "radio is Active, 1 of 1 items up.\n"));
    EXPECT_TRUE(Tells(ended, "radio        start bundle[radio] activator done.\n"));
}

TEST_F(Trying, EndsWhenItsTimeIsOver)
{
    const Ended ended = Run({"try", Radio(), "--for", "100ms", "--expect", "active"});
    EXPECT_EQ(ended.status, 1);
    EXPECT_TRUE(Tells(ended, "radio is ")) << "how far the server comes in this time depends on the machine";
    EXPECT_EQ(Run({"try", Radio(), "--for", "100ms"}).status, 0) << "nothing was expected";
}

TEST_F(Trying, FailsWhenItIsEndedBeforeItsTime)
{
    const Ended ended = RunUntil({"try", Radio(), "--expect", "active", "--for", "1h"}, SERVES);
    EXPECT_EQ(ended.status, 1);
    EXPECT_TRUE(Tells(ended, "It was ended before its time was over.\n"));
}

TEST_F(Trying, FailsWhenAnItemDiesAndIsRunAgain)
{
    const std::string note = notes / "ran";
    bundles.Bundle("tv")
        .Item("tube.sh", "[ -e " + note + " ] && " + Sleep() + ": > " + note + "\nkill -SEGV $$\n")
        .Write();
    const Ended ended = RunUntil({"try", bundles / "tv", Radio(), "--expect", "active"}, "tv.tube.sh relaunch done.");
    EXPECT_EQ(ended.status, 1);
    EXPECT_TRUE(Tells(ended, "radio is Active, 1 of 1 items up.\n"));
    EXPECT_TRUE(Tells(ended, "Its item tube.sh has ended with SIGSEGV and was run again.\n"));
}

TEST_F(Trying, TellsWhyABundleDoesNotRun)
{
    bundles.Bundle("tv").Item("tube.sh", "exit 3\n").Write();
    bundles.Bundle("odd").Mode("7").Write();
    const Ended ended = RunUntil({"try", bundles / "tv", bundles / "odd", "--expect", "active"}, SERVES);
    EXPECT_EQ(ended.status, 1);
    EXPECT_TRUE(Tells(ended, "status 3"));
    EXPECT_TRUE(Tells(ended, "odd is refused, 0 of 0 items up.\n"));
}

TEST_F(Trying, ReplacesWhatIsRequiredByStubs)
{
    bundles.Bundle("tv").Requires("radio").Requires("screen").Item("tube.sh", Sleep()).Write();
    const Ended ended = RunUntil({"try", bundles / "tv", Radio(), "--expect", "active"}, SERVES);
    EXPECT_EQ(ended.status, 0) << ended.output;
    EXPECT_TRUE(Tells(ended, "\"screen\" is required and not given: a stub stands in for it"));
    EXPECT_FALSE(Has(ended.output, "\"radio\" is required"));
}

TEST_F(Trying, DoesNotTouchTheBundle)
{
    bundles.Bundle("tv").Item("tube.sh", "echo x > \"${0%/bin/*}/data/state\"\n" + Sleep()).Write();
    fs::create_directory(bundles / "tv/data");
    const auto before = fs::last_write_time(bundles / "tv/data");
    EXPECT_EQ(RunUntil({"try", bundles / "tv", "--expect", "active"}, SERVES).status, 0);
    EXPECT_FALSE(Exists(bundles / "tv/data/state"));
    EXPECT_EQ(fs::last_write_time(bundles / "tv/data"), before);
}

TEST_F(Trying, LeavesNothingWhenASignalEndsIt)
{
    // One of its processes makes a session of its own, the other ignores SIGTERM.
    bundles.Bundle("tv").Item("tube.sh", "(" + Sleep() + ") &\nsetsid sh -c '" + Sleep() + "'").Write();
    bundles.Bundle("deaf").Item("deaf.sh", "trap '' TERM\n" + Sleep()).Write();
    const auto before = Surroundings();
    Program interrupted(Words({"try", Radio()}));
    Program hungUp(Words({"try", bundles / "tv"}));
    Program terminated(Words({"try", bundles / "deaf"}));
    ASSERT_TRUE(Shows(interrupted, SERVES) && Shows(hungUp, SERVES) && Shows(terminated, SERVES));
    EXPECT_TRUE(IsAnySleeping());
    interrupted.Signal(SIGINT);
    hungUp.Signal(SIGHUP);
    terminated.Signal(SIGTERM);
    EXPECT_EQ(interrupted.Wait(), 0);
    EXPECT_EQ(hungUp.Wait(), 0);
    EXPECT_EQ(terminated.Wait(), 0);
    EXPECT_FALSE(IsAnySleeping());
    for (const std::string& entry : Surroundings()) {
        const bool isOfOurs = Has(entry, "bundlectl") || Has(entry, "bolt");
        EXPECT_TRUE(!isOfOurs || before.count(entry) != 0) << entry;
    }
}

TEST_F(Trying, LeavesNoProcessWhenItIsKilled)
{
    Program program(Words({"try", Radio()}));
    EXPECT_TRUE(Shows(program, SERVES));
    EXPECT_TRUE(Eventually(20s, [&] { return IsAnySleeping(); }));
    program.Signal(SIGKILL);
    EXPECT_EQ(program.Wait(), -SIGKILL);
    EXPECT_TRUE(Eventually(20s, [&] { return !IsAnySleeping(); }));
}

TEST_F(Trying, WorksWithoutRoot)
{
    std::vector<std::string> words = AsNobody();
    RunShell("chmod -R a+rX " + bundles.Path());
    std::vector<std::string> unshare = words;
    unshare.insert(unshare.end(), {"/usr/bin/unshare", "--user", "--pid", "--mount", "--fork", "--mount-proc", "test",
                                   "-x", BUNDLE_SERVER_PROGRAM});
    if (Program(unshare).Wait() != 0) {
        GTEST_SKIP() << "other users may make no namespaces here, or may not read the build directory";
    }
    const std::vector<std::string> arguments = Words({"try", Radio(), "--expect", "active", "--for", "5s", "--json"});
    words.insert(words.end(), arguments.begin(), arguments.end());
    Program program(words);
    EXPECT_EQ(program.Wait(), 0) << program.Output() << program.Errors();
    EXPECT_TRUE(Has(program.Output(), "\"good\":true")) << program.Output();
    EXPECT_FALSE(IsAnySleeping());
}

TEST_F(Trying, SaysWhatPermitsNamespaces)
{
    const std::string forbid = "echo 0 > /proc/sys/user/max_pid_namespaces && exec \"$@\"";
    std::vector<std::string> words{"/usr/bin/unshare", "--user", "--map-root-user", "/bin/sh", "-c", forbid, "sh"};
    std::vector<std::string> probe = words;
    probe.emplace_back("/bin/true");
    if (Program(probe).Wait() != 0) {
        GTEST_SKIP() << "there are no user namespaces in which namespaces could be forbidden";
    }
    const std::vector<std::string> arguments = Words({"try", Radio()});
    words.insert(words.end(), arguments.begin(), arguments.end());
    Program program(words);
    EXPECT_EQ(program.Wait(), 4);
    EXPECT_TRUE(Has(program.Errors(), "Run it as root, or permit users to make namespaces")) << program.Errors();
}

TEST_F(Trying, FindsTheServerInThePath)
{
    const std::string path = "PATH=" + fs::path(BUNDLE_SERVER_PROGRAM).parent_path().string() + ":/usr/bin:/bin";
    const Ended ended = RunToEnd("/usr/bin/env", {path, BUNDLECTL_PROGRAM, "try", Radio(), "--for", "1ms"});
    EXPECT_EQ(ended.status, 0) << ended.errors;
}

TEST_F(Trying, SaysThatTheServerHasEnded)
{
    const Ended ended = RunToEnd(BUNDLECTL_PROGRAM, {"try", Radio(), "--server", "/bin/false"});
    EXPECT_EQ(ended.status, 1);
    EXPECT_TRUE(Tells(ended, "The server has ended by itself: status 1.\n"));
    EXPECT_FALSE(Has(ended.output, "Way out")) << "a start of the installed server is none: " << ended.output;
}

TEST_F(Trying, PrintsJson)
{
    bundles.Bundle("tv").Requires("screen").Item("tube.sh", "exit 3\n").Write();
    const Ended ended = Run({"try", bundles / "tv", Radio(), "--for", "2s", "--json", "--expect", "active"});
    EXPECT_EQ(ended.status, 1);
    EXPECT_TRUE(FollowsSchema(ended.output));
    EXPECT_TRUE(Tells(ended, "\"stubs\":[\"screen\"]"));
}

TEST_F(Trying, SaysWhatIsWrongWithItsUse)
{
    EXPECT_EQ(Run({"try"}).status, 2);
    EXPECT_EQ(Run({"try", Radio(), "--for", "soon"}).status, 2);
    EXPECT_EQ(Run({"try", Radio(), "--expect", "wonders"}).status, 2);
    const Ended none = Run({"try", bundles / "nothing"});
    EXPECT_EQ(none.status, 2);
    EXPECT_TRUE(Has(none.errors, "is no directory")) << none.errors;
    const Ended empty = Run({"try", bundles.Path()});
    EXPECT_EQ(empty.status, 2);
    EXPECT_TRUE(Has(empty.errors, "it has no BundleManifest.ini")) << empty.errors;
    const Ended missing = RunToEnd(BUNDLECTL_PROGRAM, {"try", Radio(), "--server", "/nowhere/bundle_server"});
    EXPECT_EQ(missing.status, 4);
    EXPECT_TRUE(Has(missing.errors, "/nowhere/bundle_server is no program")) << missing.errors;
}
