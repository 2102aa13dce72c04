#include "system/system_test.h"

#include <dirent.h>
#include <fcntl.h>
#include <sys/resource.h>
#include <unistd.h>

#include <algorithm>
#include <cstdlib>
#include <filesystem>
#include <initializer_list>
#include <sstream>

namespace {

using namespace std::chrono_literals;

class Help : public SystemTest, public ::testing::WithParamInterface<const char*> {};
class StartingWithAFaultyCommandLine : public SystemTest {};
class StartingWithAFaultyConfiguration : public SystemTest {};
class StartingTheServer : public SystemTest {};
class StartingWithHugeLimits : public SystemTest {};

int Count(const std::string& text, const std::string& piece)
{
    int count = 0;
    for (std::size_t at = text.find(piece); at != std::string::npos; at = text.find(piece, at + piece.size())) {
        ++count;
    }
    return count;
}

/// The words of a text, one blank between them.
std::string Unfolded(const std::string& text)
{
    std::istringstream words(text);
    std::string unfolded;
    for (std::string word; words >> word;) {
        unfolded += word + " ";
    }
    return unfolded;
}

/// "child process[1234]" as "child process[PID]".
std::string WithoutPid(std::string message)
{
    const std::string before = "process[";
    const std::size_t begin = message.find(before);
    const std::size_t end = message.find(']', begin);
    if (begin != std::string::npos && end != std::string::npos) {
        message.replace(begin + before.size(), end - begin - before.size(), "PID");
    }
    return message;
}

/// The entries of a directory, in the order in which the system gives them.
std::vector<std::string> EntriesAsFound(const std::string& path)
{
    std::vector<std::string> names;
    DIR* const stream = ::opendir(path.c_str());
    for (const dirent* entry = ::readdir(stream); entry != nullptr; entry = ::readdir(stream)) {
        if (entry->d_name[0] != '.') {
            names.emplace_back(entry->d_name);
        }
    }
    ::closedir(stream);
    return names;
}

} // namespace

TEST_P(Help, IsPrintedAndNoBundleLoaded)
{
    collection.Bundle("radio").Write();
    daemon.SetArguments({GetParam()});
    daemon.Start();
    EXPECT_EQ(daemon.WaitForEnd().value_or(ProcessEnd{}).status, 0);
    const std::string help = daemon.Output();
    EXPECT_EQ(help.rfind("usage: bundle_server OPTIONS\na bundles management platform.\n", 0), 0U) << help;
    // How the framework lays it out is its own affair.
    const std::string words = Unfolded(help);
    EXPECT_EQ(Count(words, "-h, --help display help information on command line arguments"), 1) << help;
    EXPECT_EQ(Count(words, "-ffile, --config-file=file load configuration data from a file"), 1) << help;
    EXPECT_EQ(daemon.Errors(), "");
    EXPECT_TRUE(daemon.Log().empty());
}
INSTANTIATE_TEST_SUITE_P(ByItsNames, Help, ::testing::Values("--help", "-h"),
                         [](const auto& name) { return std::string(name.index == 0 ? "Long" : "Short"); });

TEST_F(StartingTheServer, LoadsTheConfigurationBeforeHelpThatIsAskedForAfterIt)
{
    WriteFile(Note("some.properties"), "global.bundle_collection_dir = " + collection.Path() + "\n");
    daemon.SetArguments({"-f", Note("some.properties"), "--help"});
    daemon.Start();
    EXPECT_EQ(daemon.WaitForEnd().value_or(ProcessEnd{}).status, 0);
    EXPECT_EQ(Count(daemon.Output(), "a bundles management platform."), 1);
    EXPECT_EQ(daemon.Messages(),
              (std::vector<std::string>{"load config from [" + Note("some.properties") + "]...", "load config done."}));
}

TEST_F(StartingWithAFaultyCommandLine, IsRefusedWithoutAConfigurationFile)
{
    daemon.SetArguments({});
    daemon.Start();
    EXPECT_EQ(daemon.WaitForEnd().value_or(ProcessEnd{}).status, 78);
    EXPECT_EQ(Count(daemon.Errors(), "config-file"), 1) << daemon.Errors();
    EXPECT_TRUE(daemon.Log().empty());
}

TEST_F(StartingWithAFaultyCommandLine, IsRefusedWithAnUnknownOption)
{
    daemon.SetArguments({"--frobnicate"});
    daemon.Start();
    EXPECT_EQ(daemon.WaitForEnd().value_or(ProcessEnd{}).status, 78);
    EXPECT_EQ(Count(daemon.Errors(), "frobnicate"), 1) << daemon.Errors();
}

TEST_F(StartingWithAFaultyCommandLine, IsRefusedWhenTheConfigurationFileIsMissing)
{
    daemon.SetArguments({"-f", Note("missing.ini")});
    daemon.Start();
    EXPECT_EQ(daemon.WaitForEnd().value_or(ProcessEnd{}).status, 78);
    EXPECT_EQ(Count(daemon.Errors(), Note("missing.ini")), 1) << daemon.Errors();
    EXPECT_EQ(daemon.Messages(), std::vector<std::string>{"load config from [" + Note("missing.ini") + "]..."});
}

TEST_F(StartingWithAFaultyConfiguration, EndsWithASoftwareErrorWhenTheCollectionIsNotNamed)
{
    daemon.Configure("global.bundle_collection_dir", "");
    daemon.Configure("global.other", "1");
    daemon.Start();
    EXPECT_EQ(daemon.WaitForEnd().value_or(ProcessEnd{}).status, 70);
    EXPECT_EQ(daemon.Errors(), "Not found: global.bundle_collection_dir\n");
    EXPECT_EQ(daemon.Messages().back(), "init bundle server...");
}

TEST_F(StartingWithAFaultyConfiguration, EndsWithASoftwareErrorWhenTheCollectionIsMissing)
{
    daemon.Configure("global.bundle_collection_dir", Note("nowhere"));
    daemon.Start();
    EXPECT_EQ(daemon.WaitForEnd().value_or(ProcessEnd{}).status, 70);
    EXPECT_EQ(Lines(daemon.Errors()).size(), 1U) << daemon.Errors();
    EXPECT_EQ(Count(daemon.Errors(), Note("nowhere")), 1) << daemon.Errors();
    EXPECT_EQ(daemon.Messages().back(), "bundle collection dir -> [" + Note("nowhere") + "]");
}

TEST_F(StartingWithAFaultyConfiguration, EndsWithASoftwareErrorWhenTheCollectionIsAFile)
{
    WriteFile(Note("file"), "");
    daemon.Configure("global.bundle_collection_dir", Note("file"));
    daemon.Start();
    EXPECT_EQ(daemon.WaitForEnd().value_or(ProcessEnd{}).status, 70);
    EXPECT_EQ(Lines(daemon.Errors()).size(), 1U) << daemon.Errors();
}

class ConfigurationFile : public SystemTest, public ::testing::WithParamInterface<const char*> {
protected:
    std::string Text() const
    {
        const std::string format = GetParam();
        if (format == "ini") {
            return "[global]\nbundle_collection_dir = " + collection.Path() + "\n";
        }
        if (format == "xml") {
            return "<config><global><bundle_collection_dir>" + collection.Path() +
                   "</bundle_collection_dir></global></config>\n";
        }
        if (format == "json") {
            return "{\"global\": {\"bundle_collection_dir\": \"" + collection.Path() + "\"}}\n";
        }
        return "global.bundle_collection_dir = " + collection.Path() + "\n";
    }
};

TEST_P(ConfigurationFile, IsReadInTheFormatOfItsEnding)
{
    const std::string path = Note(std::string("server.") + GetParam());
    WriteFile(path, Text());
    collection.Bundle("radio").Write();
    daemon.SetArguments({"--config-file=" + path});
    ASSERT_TRUE(daemon.StartServing());
    EXPECT_TRUE(InOrder(daemon.Messages(), {"load config from [" + path + "]...", "load config done.",
                                            "bundle collection dir -> [" + collection.Path() + "]",
                                            "bundle[radio] state changing[Starting] -> [Active]"}));
    EXPECT_EQ(daemon.Stop().status, 0);
}
INSTANTIATE_TEST_SUITE_P(Is, ConfigurationFile, ::testing::Values("ini", "properties", "xml", "json"),
                         [](const auto& format) { return std::string(format.param); });

TEST_F(StartingTheServer, ServesWhenTheCollectionIsEmpty)
{
    ASSERT_TRUE(daemon.StartServing());
    EXPECT_EQ(daemon.CountInLog("load bundle from"), 0);
    EXPECT_EQ(daemon.CountInLog("child process create"), 0);
    EXPECT_EQ(RequestDelete("radio"), 404);
    EXPECT_EQ(daemon.Stop().status, 0);
    EXPECT_EQ(daemon.Errors(), "");
}

TEST_F(StartingTheServer, PassesOverWhatIsNoDirectory)
{
    WriteFile(collection / "README", "bundles are directories\n");
    std::filesystem::create_symlink("nowhere", collection / "dangling");
    std::filesystem::create_symlink("looping", collection / "looping");
    collection.Bundle("radio").Write();
    ASSERT_TRUE(daemon.StartServing());
    EXPECT_EQ(daemon.CountInLog("load bundle from"), 1);
    EXPECT_EQ(daemon.CountInLog("bundle[radio] state changing[Starting] -> [Active]"), 1);
    EXPECT_EQ(daemon.Stop().status, 0);
}

TEST_F(StartingTheServer, GoesOnWithTheNextBundleWhenOneIsBroken)
{
    collection.Bundle("broken").Manifest("[global]\nbundle_name = broken\n").Write();
    collection.Bundle("empty").NoManifest().Write();
    collection.Bundle("radio").Write();
    collection.Bundle("strange").Mode("7").Write();
    ASSERT_TRUE(daemon.StartServing());
    EXPECT_EQ(daemon.CountInLog("failed to load bundles from " + collection / "broken" +
                                ":Not found: global.bundle_load_mode"),
              1);
    EXPECT_EQ(daemon.CountInLog("failed to load bundles from " + collection / "empty" +
                                ":File not found: [./BundleManifest.ini] not found."),
              1);
    EXPECT_EQ(daemon.CountInLog("create bundle activator fail."), 1);
    EXPECT_EQ(daemon.CountInLog("bundle[radio] state changing[Starting] -> [Active]"), 1);
    EXPECT_EQ(daemon.Stop().status, 0);
}

TEST_F(StartingTheServer, EndsWhenTheNameOfAnItemIsShorterThanThreeCharacters)
{
    collection.Bundle("radio").Item("so").Write();
    daemon.Start();
    EXPECT_EQ(daemon.WaitForEnd().value_or(ProcessEnd{}).status, 70);
    EXPECT_EQ(daemon.Errors(), "item name[so] is shorter than three characters\n");
    EXPECT_EQ(daemon.Messages().back(), "parse bundle manifest fail.");
}

TEST_F(StartingTheServer, IsNotUndoneByAShortItemNameThatComesLater)
{
    ASSERT_TRUE(daemon.StartServing());
    staging.Bundle("radio").Item("so").Write();
    MoveIn("radio");
    EXPECT_TRUE(daemon.WaitForLog("failed to load bundle from [" + collection / "radio" + "]."));
    EXPECT_EQ(RequestDelete("radio"), 404);
    EXPECT_EQ(daemon.Stop().status, 0);
}

TEST_F(StartingTheServer, WritesItsRecordsInTheirOrder)
{
    collection.Bundle("app").Requires("base").Copy("appd", TEST_SLEEPER).Write();
    collection.Bundle("base")
        .Copy("based", TEST_SLEEPER)
        .Item("check.sh", Shell("exec sleep 1000"))
        .Install(Shell("exit 0"))
        .Write();
    ASSERT_TRUE(daemon.StartServing());

    std::vector<std::string> expected{"init bundle server...",   "bundle collection dir -> [" + collection.Path() + "]",
                                      "create BundleFactory...", "create BundleFactory done.",
                                      "create BundleManager...", "create BundleManager done.",
                                      "LoadAllBundles..."};
    const auto expect = [&expected](std::initializer_list<std::string> messages) {
        expected.insert(expected.end(), messages);
    };
    const auto expectItem = [&](const std::string& name) {
        expect({"==================", "bundle item info : ", "bundle item name ------> [" + name + "]",
                "=================="});
    };
    for (const std::string& name : EntriesAsFound(collection.Path())) {
        expect({"load bundle from " + collection / name + "...", "=================bundle info=================",
                "bundle name ------> [" + name + "]", "bundle load mode ------> [0]"});
        if (name == "app") {
            expect({"bundle dependencies ------> [base]"});
            expectItem("appd");
        } else {
            expectItem("based");
            expectItem("check.sh");
        }
        expect({"=================================================="});
        if (name == "base") {
            expect({"run script[" + collection / "base/./script/install.sh" + "]...",
                    "run script[" + collection / "base/./script/install.sh" + "] done."});
        }
        expect({"load bundle[" + name + "] success.", "load bundle done."});
    }
    const std::string launch = "parent process ready.notify child process[PID]...";
    const std::string launched = "notify child process[PID] done.";
    expect({"LoadAllBundles done.",
            "ResolveAllBundles...",
            "resolve bundle[app]...",
            "resolve bundle[app] dependencies...",
            "resolve bundle[base]...",
            "resolve bundle[base] dependencies...",
            "resolve bundle dependencies done.",
            "bundle[base] state changing[Installed] -> [Resolved]",
            "resolve bundle done.",
            "resolve bundle dependencies done.",
            "bundle[app] state changing[Installed] -> [Resolved]",
            "resolve bundle done.",
            "ResolveAllBundles done.",
            "StartAllBundles...",
            "start bundle[app]...",
            "bundle[app] state changing[Resolved] -> [Starting]",
            "start bundle[app] dependencies...",
            "start bundle[base]...",
            "bundle[base] state changing[Resolved] -> [Starting]",
            "start bundle[base] dependencies...",
            "start bundle dependencies done.",
            "start bundle[base] activator...",
            "child process create, start monitor thread.",
            launch,
            launched,
            launch,
            launched,
            "start bundle[base] activator done.",
            "bundle[base] state changing[Starting] -> [Active]",
            "start bundle done.",
            "start bundle dependencies done.",
            "start bundle[app] activator...",
            launch,
            launched,
            "start bundle[app] activator done.",
            "bundle[app] state changing[Starting] -> [Active]",
            "start bundle done.",
            "StartAllBundles done.",
            "init bundle server done.",
            "bundle server start running..."});

    std::vector<std::string> actual;
    for (const LogRecord& record : daemon.Log()) {
        if (record.pid == daemon.Pid()) {
            EXPECT_EQ(record.level, "INFO") << record.line;
            EXPECT_EQ(record.thread, daemon.Pid()) << record.line;
            EXPECT_EQ(record.source.rfind("system_server/bundle_server_module/src/bundle", 0), 0U) << record.line;
            actual.push_back(WithoutPid(record.message));
        }
    }
    ASSERT_GE(actual.size(), 2U);
    EXPECT_EQ(actual[0].rfind("load config from [", 0), 0U);
    EXPECT_EQ(actual[1], "load config done.");
    EXPECT_EQ(std::vector<std::string>(actual.begin() + 2, actual.end()), expected);
}

TEST_F(StartingTheServer, WritesTheRecordsOfALaunchedChildUpToItsExecution)
{
    collection.Bundle("radio").Copy("radiod", TEST_SLEEPER).Write();
    ASSERT_TRUE(daemon.StartServing());
    const pid_t item = daemon.WaitForItem("radio", "radiod");
    EXPECT_EQ(daemon.Messages(item),
              (std::vector<std::string>{
                  "wait for parent process ready...",
                  "wait for parent process ready done pgid is [" + std::to_string(daemon.Pid()) + "].",
                  "execute binary[" + collection / "radio/./bin/radiod" + "].excute command:{radiod}"}));
}

TEST_F(StartingTheServer, UnloadsWhatCanNotBeResolvedOrStarted)
{
    collection.Bundle("alone").Requires("nobody").Uninstall(Shell("echo alone >> " + Note("gone"))).Write();
    collection.Bundle("circle").Requires("round").Uninstall(Shell("echo circle >> " + Note("gone"))).Write();
    collection.Bundle("player").Requires("circle").Uninstall(Shell("echo player >> " + Note("gone"))).Write();
    collection.Bundle("round").Requires("circle").Uninstall(Shell("echo round >> " + Note("gone"))).Write();
    collection.Bundle("threads")
        .ThreadMode()
        .Item("threads.sh", "")
        .Uninstall(Shell("echo threads >> " + Note("gone")))
        .Write();
    ASSERT_TRUE(daemon.StartServing());
    EXPECT_TRUE(
        InOrder(
            daemon.Messages(),
            {"failed to resolve bundle[alone] :Invalid argument: required bundle :[nobody] not found.",
             "failed to resolve bundle[circle] :Invalid argument: bundle circular reference occur : <round,circle>.",
             "failed to resolve bundle[player] :Invalid argument: bundle circular reference occur : <round,circle>.",
             "failed to resolve bundle[round] :Invalid argument: bundle circular reference occur : <circle,round>.",
             "failed to start bundle[threads] :Invalid argument: item[%s] can not be loaded in thread mode.",
             "bundle[threads] state changing[Starting] -> [Resolved]"}) == false)
        << "the state is put back before the failure is told";
    EXPECT_TRUE(InOrder(
        daemon.Messages(),
        {"failed to resolve bundle[alone] :Invalid argument: required bundle :[nobody] not found.",
         "failed to resolve bundle[circle] :Invalid argument: bundle circular reference occur : <round,circle>.",
         "failed to resolve bundle[player] :Invalid argument: bundle circular reference occur : <round,circle>.",
         "failed to resolve bundle[round] :Invalid argument: bundle circular reference occur : <circle,round>.",
         "bundle[threads] state changing[Starting] -> [Resolved]",
         "failed to start bundle[threads] :Invalid argument: item[%s] can not be loaded in thread mode."}));
    EXPECT_EQ(ReadFile(Note("gone")), "alone\ncircle\nplayer\nround\nthreads\n");
}

TEST_F(StartingTheServer, RunsTheInstallScriptsWithTheirEffects)
{
    collection.Bundle("radio")
        .Install(Shell("pwd > " + Note("installed") + "; echo $# >> " + Note("installed")))
        .Write();
    ASSERT_TRUE(daemon.StartServing());
    EXPECT_EQ(ReadFile(Note("installed")), std::filesystem::current_path().string() + "\n0\n");
}

TEST_F(StartingTheServer, LoadsADirectoryOnceThatComesWhileTheOthersAreLoaded)
{
    collection.Bundle("slow")
        .Install(Shell(": > " + Note("begun") + "; while [ ! -e " + Note("moved") + " ]; do sleep 0.01; done"))
        .Write();
    staging.Bundle("late").Install(Shell("echo x >> " + Note("installs"))).Write();
    daemon.Start();
    ASSERT_TRUE(Eventually(DaemonRunner::PATIENCE, [this] { return Exists(Note("begun")); }));
    MoveIn("late");
    // Longer than the watcher takes to see it, with its handler's wait: the event comes into the middle of the loading.
    ASSERT_TRUE(daemon.WaitForLog("dir item add event happen."));
    EXPECT_FALSE(daemon.WaitForLog("add a new bundle dir.", 1, 2s));
    WriteFile(Note("moved"), "");
    EXPECT_TRUE(daemon.WaitForLog("bundle[late] state changing[Starting] -> [Active]"));
    ASSERT_TRUE(daemon.WaitForLog("bundle server start running..."));
    EXPECT_FALSE(daemon.WaitForLog("load bundle[late] success.", 2, 2s));
    EXPECT_EQ(daemon.CountInLog("bundle[late] already exists."), 0);
    EXPECT_EQ(ReadFile(Note("installs")), "x\n");
    EXPECT_EQ(RequestDelete("late"), 200);
}

// The same bundle is in the hands of the start-up and of the directory's events: whoever resolves and starts it, the
// other must not take it away.
TEST_F(StartingTheServer, KeepsABundleWhoseEventMeetsTheWalksOverAllBundles)
{
    Interpose("HOLD_AFTER", "1: ResolveAllBundles...\n2: load bundle[late] done.\n2: ResolveAllBundles done.");
    collection.Bundle("slow")
        .Install(Shell(": > " + Note("begun") + "; while [ ! -e " + Note("moved") + " ]; do sleep 0.01; done"))
        .Write();
    staging.Bundle("late").Write();
    daemon.Start();
    ASSERT_TRUE(Eventually(DaemonRunner::PATIENCE, [this] { return Exists(Note("begun")); }));
    MoveIn("late");
    ASSERT_TRUE(daemon.WaitForLog("dir item add event happen."));
    // The event's handler waits for a second of its own; only then is it the start-up that it waits for.
    EXPECT_FALSE(daemon.WaitForLog("add a new bundle dir.", 1, 2s));
    WriteFile(Note("moved"), "");
    ASSERT_TRUE(daemon.WaitForLog("bundle server start running..."));
    EXPECT_TRUE(daemon.WaitForLog("bundle[late] state changing[Starting] -> [Active]"));
    EXPECT_EQ(RequestDelete("late"), 200);
}

TEST_F(StartingTheServer, LoadsADirectoryOnceThatComesBeforeItsOwnLookAtTheCollection)
{
    Interpose("HOLD_AFTER", "3: create BundleManager done.");
    staging.Bundle("late").Install(Shell("echo x >> " + Note("installs"))).Write();
    daemon.Start();
    ASSERT_TRUE(daemon.WaitForLog("create BundleManager done."));
    MoveIn("late");
    ASSERT_TRUE(daemon.WaitForLog("dir item add event happen."));
    ASSERT_EQ(daemon.CountInLog("LoadAllBundles..."), 0) << "this machine is too slow";
    EXPECT_TRUE(daemon.WaitForLog("bundle[late] state changing[Starting] -> [Active]"));
    EXPECT_FALSE(daemon.WaitForLog("bundle[late] already exists.", 1, 2s));
    EXPECT_EQ(ReadFile(Note("installs")), "x\n");
    EXPECT_EQ(RequestDelete("late"), 200);
}

TEST_F(StartingTheServer, LoadsADirectoryOnceThatComesWhileTheOthersAreStarted)
{
    collection.Bundle("slow")
        .Copy("slow1", TEST_SLEEPER)
        .Copy("slow2", TEST_SLEEPER)
        .Copy("slow3", TEST_SLEEPER)
        .Copy("slow4", TEST_SLEEPER)
        .Write();
    staging.Bundle("late").Install(Shell("echo x >> " + Note("installs"))).Copy("lated", TEST_SLEEPER).Write();
    daemon.Start();
    ASSERT_TRUE(daemon.WaitForLog("start bundle[slow] activator..."));
    MoveIn("late");
    EXPECT_TRUE(daemon.WaitForLog("bundle[late] state changing[Starting] -> [Active]"));
    ASSERT_TRUE(daemon.WaitForLog("bundle server start running..."));
    EXPECT_EQ(daemon.CountInLog("load bundle[late] success."), 1);
    EXPECT_EQ(daemon.PidsOf("late", "lated").size(), 1U);
    EXPECT_EQ(ReadFile(Note("installs")), "x\n");
}

TEST_F(StartingTheServer, TakesASecondForEachProcessItem)
{
    collection.Bundle("radio").Copy("one", TEST_SLEEPER).Copy("two", TEST_SLEEPER).Write();
    collection.Bundle("tuner").Copy("three", TEST_SLEEPER).Write();
    ASSERT_TRUE(daemon.StartServing());
    EXPECT_GE(std::chrono::steady_clock::now() - daemon.StartTime(), 3s);
}

TEST_F(StartingWithHugeLimits, RunsScriptsAtOnce)
{
    constexpr rlim_t hugeLimit = 1'000'000; // about what the kernel allows where nobody has changed it
    const rlimit limit{hugeLimit, hugeLimit};
    rlimit before{};
    ASSERT_EQ(::getrlimit(RLIMIT_NOFILE, &before), 0);
    if (before.rlim_max < hugeLimit && ::setrlimit(RLIMIT_NOFILE, &limit) != 0) {
        GTEST_SKIP() << "the limit of descriptors may not be raised here";
    }
    daemon.SetPreparation([&limit] { ::setrlimit(RLIMIT_NOFILE, &limit); });
    for (int i = 0; i < 30; ++i) {
        collection.Bundle("bundle" + std::to_string(i)).Install(Shell("echo x >> " + Note("installs"))).Write();
    }
    ASSERT_TRUE(daemon.StartServing());
    EXPECT_NE(ProcessOf::Limit(daemon.Pid(), "Max open files").find("1000000"), std::string::npos);
    EXPECT_EQ(Lines(ReadFile(Note("installs"))).size(), 30U);
    // Thirty children that close a million numbers each take several seconds of processor time.
    EXPECT_LT(ProcessOf::ProcessorTimeWithChildren(daemon.Pid()), 2s);
}
