#include "unit/model/bundle_on_disk.h"

#include "support/fault.h"

#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <filesystem>
#include <sstream>
#include <stdexcept>
#include <string>
#include <vector>

using SystemServer::Bundle;
using SystemServer::BundleStorageDir;

namespace {

class RunningAScript : public BundleOnDisk {};

} // namespace

TEST_F(RunningAScript, WritesNothingWithoutAScript)
{
    const auto bundle = BundleAt(path);
    log.Restart();
    bundle->RunScript("update.sh");
    EXPECT_TRUE(log.Messages().empty());
    EXPECT_FALSE(Exists(path + "/script"));
}

TEST_F(RunningAScript, NotifiesTheObserverAfterItsEndButNotWithoutAScript)
{
    const std::string mark = collection / "mark";
    collection.Bundle("media")
        .Install("#!/bin/sh\nsleep 0.1\ntouch " + mark + "\n")
        .Update("#!/bin/sh\nexit 1\n")
        .Write();
    std::vector<std::string> told;
    Bundle bundle(std::make_shared<BundleStorageDir>(path), [&](const Bundle& teller) {
        told.push_back(teller.GetStorage()->GetRootPath() + (Exists(mark) ? " with its mark" : ""));
    });
    bundle.RunScript("uninstall.sh");
    EXPECT_TRUE(told.empty());
    bundle.RunScript("install.sh");
    EXPECT_EQ(told, std::vector<std::string>{path + " with its mark"});
    bundle.Update();
    EXPECT_EQ(told.size(), 2U);
}

TEST_F(RunningAScript, WaitsForItsEnd)
{
    const std::string mark = collection / "mark";
    const auto bundle =
        BundleAt(collection.Bundle("media").Install("#!/bin/sh\nsleep 0.3\necho \"$0 $#\" > " + mark + "\n").Write());
    log.Restart();
    bundle->RunScript("install.sh");
    EXPECT_EQ(ReadFile(mark), ScriptPath("install.sh") + " 0\n");
    EXPECT_EQ(log.Messages(), (std::vector<std::string>{"run script[" + ScriptPath("install.sh") + "]...",
                                                        "run script[" + ScriptPath("install.sh") + "] done."}));
    EXPECT_EQ(log.Records().at(0).level, "INFO");
    EXPECT_EQ(log.Records().at(1).level, "INFO");
}

TEST_F(RunningAScript, KeepsTheStoragesRootUnchanged)
{
    collection.Bundle("media").Install("#!/bin/sh\n").Write();
    const auto bundle = BundleAt(path + "/");
    bundle->RunScript("install.sh");
    EXPECT_TRUE(log.Has("run script[" + path + "//./script/install.sh] done."));
}

TEST_F(RunningAScript, TreatsSuccessAndFailureAlike)
{
    const auto bundle = BundleAt(collection.Bundle("media")
                                     .Install("#!/bin/sh\nexit 1\n")
                                     .Update("#!/bin/sh\nexit 0\n")
                                     .Uninstall("#!/bin/sh\nkill -9 $$\n")
                                     .Write());
    for (const char* const script : {"install.sh", "update.sh", "uninstall.sh"}) {
        log.Restart();
        bundle->RunScript(script);
        EXPECT_TRUE(log.HasInfo("run script[" + ScriptPath(script) + "] done."));
        EXPECT_EQ(log.Messages().size(), 2U);
    }
}

TEST_F(RunningAScript, RunsNoFileThatMayNotBeExecuted)
{
    const std::string mark = collection / "mark";
    const auto bundle = BundleAt(collection.Bundle("media").Install("#!/bin/sh\ntouch " + mark + "\n").Write());
    ASSERT_EQ(::chmod((path + "/script/install.sh").c_str(), 0600), 0);
    log.Restart();
    bundle->RunScript("install.sh");
    EXPECT_FALSE(Exists(mark));
    EXPECT_EQ(log.Messages(), (std::vector<std::string>{"run script[" + ScriptPath("install.sh") + "]...",
                                                        "run script[" + ScriptPath("install.sh") + "] done."}));
}

TEST_F(RunningAScript, UsesTheInterpreterInItsFirstLine)
{
    const std::string mark = collection / "mark";
    const std::string interpreter = collection / "interpreter";
    WriteProgram(interpreter, "#!/bin/sh\necho \"read $1\" > " + mark + "\n");
    const auto bundle = BundleAt(collection.Bundle("media").Install("#!" + interpreter + "\n").Write());
    bundle->RunScript("install.sh");
    EXPECT_EQ(ReadFile(mark), "read " + ScriptPath("install.sh") + "\n");
}

TEST_F(RunningAScript, GivesItTheServersDirectoryAndEnvironment)
{
    const std::string mark = collection / "mark";
    ASSERT_EQ(::setenv("TEST_WORD", "inherited", 1), 0);
    const auto bundle =
        BundleAt(collection.Bundle("media").Install("#!/bin/sh\necho $TEST_WORD $(pwd -P) > " + mark + "\n").Write());
    bundle->RunScript("install.sh");
    EXPECT_EQ(ReadFile(mark), "inherited " + std::filesystem::current_path().string() + "\n");
}

TEST_F(RunningAScript, GivesItAProcessGroupOfItsOwn)
{
    const std::string mark = collection / "mark";
    const std::string script = "#!/bin/sh\necho $$ $(cut -d' ' -f5 /proc/$$/stat) > " + mark + "\n";
    BundleAt(collection.Bundle("media").Install(script).Write())->RunScript("install.sh");
    std::istringstream report(ReadFile(mark));
    int pid = 0;
    int group = 0;
    report >> pid >> group;
    EXPECT_GT(pid, 0);
    EXPECT_EQ(group, pid);
    EXPECT_FALSE(log.HasPart("setpgid"));
}

TEST_F(RunningAScript, KeepsItInTheServersGroupWhenItsOwnCannotBeMade)
{
    const std::string mark = collection / "mark";
    const std::string script = "#!/bin/sh\necho $$ $(cut -d' ' -f5 /proc/$$/stat) > " + mark + "\n";
    const auto bundle = BundleAt(collection.Bundle("media").Install(script).Write());
    log.Restart();
    {
        const Fault fault(Call::SETPGID, EPERM);
        bundle->RunScript("install.sh");
    }
    std::istringstream report(ReadFile(mark));
    int pid = 0;
    int group = 0;
    report >> pid >> group;
    EXPECT_EQ(group, ::getpgrp());
    EXPECT_TRUE(log.HasError("setpgid " + std::to_string(pid) + " to pgid 0 failed errno 1 "));
    EXPECT_EQ(log.Messages().size(), 3U);
    EXPECT_EQ(log.Messages().back(), "run script[" + ScriptPath("install.sh") + "] done.");
}

TEST_F(RunningAScript, LogsThatItCannotBeLaunched)
{
    const auto bundle = BundleAt(collection.Bundle("media").Install("#!/bin/sh\n").Write());
    log.Restart();
    {
        const Fault fault(Call::LAUNCH, EAGAIN);
        bundle->RunScript("install.sh");
    }
    EXPECT_EQ(log.Messages(), (std::vector<std::string>{"run script[" + ScriptPath("install.sh") + "]...",
                                                        "exception info: [System exception: no launch]."}));
    EXPECT_EQ(log.Records().at(1).level, "ERROR");
}

TEST_F(RunningAScript, LogsThatItCannotBeWaitedFor)
{
    const auto bundle = BundleAt(collection.Bundle("media").Install("#!/bin/sh\n").Write());
    log.Restart();
    {
        const Fault fault(Call::WAIT_FOR_PROCESS, ECHILD);
        bundle->RunScript("install.sh");
    }
    EXPECT_EQ(log.Messages(), (std::vector<std::string>{"run script[" + ScriptPath("install.sh") + "]...",
                                                        "exception info: [System exception: no wait]."}));
}

TEST_F(RunningAScript, PassesOnExceptionsOfTheStandardLibrary)
{
    const auto bundle = BundleAt(collection.Bundle("media").Install("#!/bin/sh\n").Write());
    const BeforeEach launch(Call::LAUNCH, [](int) { throw std::runtime_error("unheard of"); });
    EXPECT_THROW(bundle->RunScript("install.sh"), std::runtime_error);
}
