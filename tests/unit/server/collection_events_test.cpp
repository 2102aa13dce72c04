#include "unit/server/open_server.h"

#include "support/eventually.h"

#include <filesystem>
#include <stdexcept>
#include <thread>

namespace {

class AnAddedItem : public TheServer {};
class ARemovedItem : public TheServer {};
class AModifiedItem : public TheServer {};

} // namespace

TEST_F(AnAddedItem, IsLoadedResolvedAndStarted)
{
    StartUp();
    const std::string path = collection.Bundle("media").Write();
    log.Restart();
    const auto before = Clock::now();
    RaiseAdded(path);
    EXPECT_GE(Clock::now() - before, 1s) << "the handler must wait, because a copy may still be incomplete";
    EXPECT_TRUE(log.InOrder(
        {"dir item add event happen.", "add a new bundle dir.", "load bundle from [" + path + "]...",
         "load bundle[media] success.", "load bundle[media] done.", "resolve bundle[media]...",
         "bundle[media] state changing[Installed] -> [Resolved]", "resolve bundle done.", "start bundle[media]...",
         "bundle[media] state changing[Starting] -> [Active]", "start bundle done."}));
    EXPECT_EQ(log.Messages().front(), "dir item add event happen.");
    EXPECT_EQ(log.Messages().back(), "start bundle done.");
    for (const LogRecord& record : log.Records()) {
        EXPECT_EQ(record.level, "INFO") << record.message;
    }
}

TEST_F(AnAddedItem, IsSkippedWhenItIsNoDirectory)
{
    StartUp();
    WriteFile(collection / "file", "");
    std::filesystem::create_symlink(collection / "nowhere", collection / "dangling");
    for (const std::string& name : {std::string("file"), std::string("dangling"), std::string("vanished")}) {
        log.Restart();
        RaiseAdded(collection / name);
        EXPECT_EQ(log.Messages(), Messages{"dir item add event happen."}) << name;
    }
}

TEST_F(AnAddedItem, IsRefusedWithARecord)
{
    StartUp();
    const std::string path = collection.Bundle("media").Mode("7").Write();
    log.Restart();
    RaiseAdded(path);
    EXPECT_TRUE(log.InOrder({"load bundle from [" + path + "]...", "create bundle activator fail.",
                             "load bundle from [" + path + "] fail."}));
    EXPECT_TRUE(log.HasError("load bundle from [" + path + "] fail."));
}

TEST_F(AnAddedItem, FailsAloneForAnyExceptionOfItsManifest)
{
    StartUp();
    const std::string broken = collection.Bundle("broken").NoManifest().Write();
    const std::string tooShort = collection.Bundle("short").Item("ab").Write();
    for (const std::string& path : {broken, tooShort}) {
        log.Restart();
        RaiseAdded(path);
        EXPECT_TRUE(log.HasError("failed to load bundle from [" + path + "].")) << path;
        EXPECT_FALSE(log.HasPart("resolve bundle")) << path;
    }
}

TEST_F(AnAddedItem, IsUnloadedAgainWhenItCannotBeResolved)
{
    StartUp();
    const std::string path = collection.Bundle("media").Requires("missing").Uninstall(Noting("uninstall")).Write();
    log.Restart();
    RaiseAdded(path);
    EXPECT_EQ(log.Messages().back(), "run script[" + ScriptPath("media", "uninstall.sh") + "] done.");
    EXPECT_TRUE(log.InOrder({"resolve bundle[media]...", "resolve bundle[media] dependencies...",
                             "run script[" + ScriptPath("media", "uninstall.sh") + "]..."}));
    EXPECT_FALSE(log.Has("resolve bundle done."));
    for (const LogRecord& record : log.Records()) {
        EXPECT_EQ(record.level, "INFO") << "there is another record: " << record.message;
    }
    EXPECT_EQ(Notes(), "uninstall\n");
    RaiseRemoved(path);
    EXPECT_TRUE(log.Has("find bundle[" + path + "] fail.")) << "it is still registered";
}

TEST_F(AnAddedItem, IsUnloadedAgainWhenItCannotBeStarted)
{
    StartUp();
    const std::string path =
        collection.Bundle("media").ThreadMode().Item("noLibrary").Uninstall(Noting("uninstall")).Write();
    log.Restart();
    RaiseAdded(path);
    EXPECT_TRUE(log.InOrder({"start bundle[media]...", "bundle[media] state changing[Starting] -> [Resolved]",
                             "run script[" + ScriptPath("media", "uninstall.sh") + "] done."}));
    EXPECT_FALSE(log.Has("start bundle done."));
    EXPECT_EQ(Notes(), "uninstall\n");
}

TEST_F(AnAddedItem, LeavesTheServerRunningWhenItsUnloadingThrowsToo)
{
    StartUp();
    const std::string path = collection.Bundle("media").Requires("missing").Uninstall("#!/bin/sh\n").Write();
    const BeforeEach launch(Call::LAUNCH, [](int) { throw std::runtime_error("unheard of"); });
    RaiseAdded(path);
    EXPECT_TRUE(log.HasError("failed bundle[media] is not unloaded :unheard of"));
}

TEST_F(AnAddedItem, IsRestartedInsteadOfLoadedASecondTime)
{
    // Start-up may have loaded half of a copy. When the copy is complete, the bundle is restarted.
    const std::string path = collection.Bundle("media").Install(Noting("install")).Write();
    StartUp();
    log.Restart();
    RaiseAdded(path);
    EXPECT_TRUE(log.InOrder({"dir item add event happen.", "bundle dir[" + path + "] is loaded already.",
                             "find bundle[" + path + "]...", "find bundle done.", "stop bundle[media]...",
                             "stop bundle done.", "start bundle[media]...",
                             "bundle[media] state changing[Starting] -> [Active]", "start bundle done."}));
    EXPECT_FALSE(log.Has("add a new bundle dir."));
    EXPECT_FALSE(log.Has("bundle[media] already exists."));
    EXPECT_EQ(Notes(), "install\n");
}

TEST_F(ARemovedItem, IsStoppedAndUnloaded)
{
    const std::string path = collection.Bundle("media").Write();
    StartUp();
    std::filesystem::remove_all(path);
    log.Restart();
    RaiseRemoved(path);
    EXPECT_EQ(
        log.Messages(),
        (Messages{"dir item remove event happen.", "remove a bundle dir.", "find bundle[" + path + "]...",
                  "find bundle done.", "stop bundle[media]...", "bundle[media] state changing[Active] -> [Stopping]",
                  "stop bundle[media] activator...", "bundle process already exit.",
                  "stop bundle[media] activator Done.", "bundle[media] state changing[Stopping] -> [Resolved]",
                  "stop bundle done.", "unload bundle[media]...", "unload bundle done."}));
    log.Restart();
    RaiseRemoved(path);
    EXPECT_TRUE(log.Has("find bundle[" + path + "] fail."));
}

TEST_F(ARemovedItem, ChangesNothingWhenItIsNoBundle)
{
    collection.Bundle("media").Write();
    StartUp();
    log.Restart();
    const std::string path = collection / "nowhere";
    RaiseRemoved(path);
    EXPECT_EQ(log.Messages(),
              (Messages{"dir item remove event happen.", "remove a bundle dir.", "find bundle[" + path + "]...",
                        "bundle with storage path[" + path + "] not found.", "find bundle[" + path + "] fail."}));
    EXPECT_TRUE(log.HasError("find bundle[" + path + "] fail."));
}

TEST_F(ARemovedItem, StaysLoadedWhenItCannotBeStopped)
{
    const std::string path = collection.Bundle("media").Write();
    StartUp();
    collection.Bundle("media").Manifest("[global]\nbundle_name = renamed\nbundle_load_mode = 0\n").Write();
    RaiseModified(path);
    log.Restart();
    RaiseRemoved(path);
    EXPECT_TRUE(log.HasError("uninstalling bundle[renamed] failed."));
    EXPECT_EQ(log.Messages().back(), "uninstalling bundle[renamed] failed.");
    EXPECT_FALSE(log.HasPart("unload bundle"));
}

TEST_F(AModifiedItem, IsUpdatedStoppedAndAfterASecondStarted)
{
    const std::string path = collection.Bundle("media").Update(Noting("update")).Write();
    StartUp();
    log.Restart();
    const auto before = Clock::now();
    RaiseModified(path);
    EXPECT_GE(Clock::now() - before, 1s);
    EXPECT_TRUE(log.InOrder(
        {"dir item modified event happen.", "update a bundle dir.", "find bundle[" + path + "]...", "find bundle done.",
         "bundle name ------> [media]", "run script[" + ScriptPath("media", "update.sh") + "] done.",
         "stop bundle[media]...", "bundle[media] state changing[Stopping] -> [Resolved]", "stop bundle done.",
         "start bundle[media]...", "bundle[media] state changing[Starting] -> [Active]", "start bundle done."}));
    EXPECT_EQ(log.Messages().back(), "start bundle done.");
    EXPECT_EQ(Notes(), "update\n");
}

TEST_F(AModifiedItem, PausesBetweenStopAndStart)
{
    const std::string path = collection.Bundle("media").Write();
    StartUp();
    std::thread event([&] { RaiseModified(path); });
    ASSERT_TRUE(Eventually(PATIENCE, [this] { return log.Has("stop bundle done."); }));
    const auto stopped = Clock::now();
    ASSERT_TRUE(Eventually(PATIENCE, [this] { return log.Count("start bundle[media]...") == 2; }));
    EXPECT_GE(Clock::now() - stopped, 900ms) << "the test sees the stop a little after the record";
    event.join();
}

TEST_F(AModifiedItem, ChangesNothingWhenItIsNoBundle)
{
    StartUp();
    log.Restart();
    const std::string path = collection / "nowhere";
    RaiseModified(path);
    EXPECT_EQ(log.Messages(),
              (Messages{"dir item modified event happen.", "update a bundle dir.", "find bundle[" + path + "]...",
                        "bundle with storage path[" + path + "] not found.", "find bundle[" + path + "] fail."}));
}

TEST_F(AModifiedItem, KeepsRunningWhenItsNewManifestIsBroken)
{
    const std::string path = collection.Bundle("media").Update(Noting("update")).Write();
    StartUp();
    WriteFile(path + "/BundleManifest.ini", "[global]\nbundle_name = newmedia\n");
    log.Restart();
    RaiseModified(path);
    EXPECT_TRUE(log.InOrder({"find bundle done.", "parse bundle manifest fail.", "update bundle[media] failed."}));
    EXPECT_TRUE(log.HasError("update bundle[media] failed."));
    EXPECT_FALSE(log.HasPart("state changing"));
    EXPECT_EQ(Notes(), "");
}

TEST_F(AModifiedItem, ShowsItsNewNameInTheRecordsThatFollow)
{
    const std::string path = collection.Bundle("media").Write();
    StartUp();
    collection.Bundle("media").Manifest("[global]\nbundle_name = renamed\nbundle_load_mode = 0\n").Write();
    log.Restart();
    RaiseModified(path);
    EXPECT_TRUE(log.Has("stop bundle[renamed]..."));
    EXPECT_TRUE(log.HasError("update bundle[renamed] failed."));
}

TEST_F(AModifiedItem, IsNotStoppedWhenItHasVanishedMeanwhile)
{
    const std::string path = collection.Bundle("media").Write();
    StartUp();
    std::filesystem::remove_all(path);
    log.Restart();
    RaiseModified(path);
    EXPECT_TRUE(log.HasError("update bundle[media] failed."));
    EXPECT_FALSE(log.HasPart("state changing"));
}
