#include "unit/server/open_server.h"

#include "support/event_fifo.h"
#include "support/eventually.h"

#include <algapp_bolt_comm.h>

#include <atomic>
#include <cerrno>
#include <filesystem>
#include <stdexcept>

namespace {

class ADeleteRequest : public ARequest {
public:
    /// Logged when the event service cannot be opened.
    const std::string publishFailure = "open event srv fail";
};

} // namespace

TEST_F(ADeleteRequest, IsRefusedWithoutContent)
{
    StartUp();
    log.Restart();
    EXPECT_EQ(StatusOf(4, 0, ""), 400);
    EXPECT_TRUE(log.HasError("[connect fd77] : call lumo_content fail.return code[-1]."));
}

TEST_F(ADeleteRequest, IsRefusedWhenItsContentCannotBeRead)
{
    collection.Bundle("media").Write();
    StartUp();
    log.Restart();
    const Fault fault(Call::LUMO_CONTENT, 42);
    EXPECT_EQ(Delete("media"), 400);
    EXPECT_EQ(log.Messages(),
              (Messages{"receive uri: 0,method: 4", "[connect fd77] : call lumo_content fail.return code[42]."}));
    EXPECT_TRUE(Exists(collection / "media"));
}

TEST_F(ADeleteRequest, IsRefusedWithTooShortAContent)
{
    collection.Bundle("media").Write();
    StartUp();
    log.Restart();
    EXPECT_EQ(StatusOf(4, 0, NameField("media").substr(0, 127)), 400);
    EXPECT_EQ(log.Messages(), (Messages{"receive uri: 0,method: 4",
                                        "[connect fd77] : invalid content len[127],required content len[128]"}));
    EXPECT_TRUE(Exists(collection / "media"));
    EXPECT_FALSE(log.HasPart("event"));
}

TEST_F(ADeleteRequest, AcceptsALongerContent)
{
    collection.Bundle("media").Write();
    StartUp();
    EXPECT_EQ(StatusOf(4, 0, NameField("media") + std::string(1000, 'x')), 200);
    EXPECT_FALSE(Exists(collection / "media"));
}

TEST_F(ADeleteRequest, FindsNoBundleThatIsNotRegistered)
{
    collection.Bundle("media").Write();
    StartUp();
    log.Restart();
    EXPECT_EQ(Delete("Media"), 404);
    EXPECT_EQ(log.Messages(), (Messages{"receive uri: 0,method: 4", "find bundle[Media]...",
                                        "bundle [Media] not found.", "find bundle[Media] fail."}));
    EXPECT_TRUE(log.HasError("find bundle[Media] fail."));
    EXPECT_TRUE(Exists(collection / "media"));
    EXPECT_EQ(Delete(""), 404);
}

TEST_F(ADeleteRequest, ReadsANameWithoutANulToTheEndOfTheContent)
{
    StartUp();
    log.Restart();
    const std::string name(128, 'n');
    EXPECT_EQ(StatusOf(4, 0, name), 404);
    EXPECT_TRUE(log.HasError("find bundle[" + name + "] fail."));
}

TEST_F(ADeleteRequest, StopsUnloadsRemovesAndPublishes)
{
    collection.Bundle("media").Uninstall(Noting("uninstall")).Write();
    collection.Bundle("other").Write();
    StartUp();
    const EventFifo fifo;
    log.Restart();
    EXPECT_EQ(Delete("media"), 200);
    const std::string path = collection / "media";
    EXPECT_EQ(
        log.Messages(),
        (Messages{"receive uri: 0,method: 4", "find bundle[media]...", "find bundle done.", "stop bundle[media]...",
                  "bundle[media] state changing[Active] -> [Stopping]", "stop bundle[media] activator...",
                  "bundle process already exit.", "stop bundle[media] activator Done.",
                  "bundle[media] state changing[Stopping] -> [Resolved]", "stop bundle done.",
                  "unload bundle[media]...", "run script[" + ScriptPath("media", "uninstall.sh") + "]...",
                  "run script[" + ScriptPath("media", "uninstall.sh") + "] done.", "unload bundle done.",
                  "success to rm : [" + path + "]."}));
    EXPECT_EQ(Notes(), "uninstall\n");
    EXPECT_FALSE(Exists(path));
    EXPECT_TRUE(Exists(collection / "other"));
    const std::string event = fifo.Received();
    ASSERT_EQ(event.size(), 72U);
    EXPECT_STREQ(event.data() + 8, "bundle_service");
    EXPECT_STREQ(event.data() + 24, "app.event.init");
    log.Restart();
    EXPECT_EQ(Delete("media"), 404);
    EXPECT_EQ(fifo.Received(), "");
}

TEST_F(ADeleteRequest, IsAnsweredWhenTheRemovalIsOnTheDisk)
{
    const std::string path = collection.Bundle("media").Write();
    StartUp();
    std::atomic<int> synced{0};
    const BeforeEach syncing(Call::FSYNC, [&](int fd) {
        ++synced;
        EXPECT_EQ(std::filesystem::read_symlink("/proc/self/fd/" + std::to_string(fd)), collection.Path());
        EXPECT_FALSE(Exists(path));
        EXPECT_TRUE(TakeSentMessages().empty());
    });
    EXPECT_EQ(Delete("media"), 200);
    EXPECT_EQ(synced, 1);
    EXPECT_EQ(Delete("media"), 404);
    EXPECT_EQ(synced, 1);
}

TEST_F(ADeleteRequest, IsAnsweredAfterASecondEvenIfTheRemovalIsNotOnTheDisk)
{
    collection.Bundle("media").Write();
    StartUp();
    std::atomic<bool> hangs{true};
    const BeforeEach syncing(Call::FSYNC, [&](int /*fd*/) { Eventually(PATIENCE, [&] { return !hangs; }); });
    const auto start = Clock::now();
    EXPECT_EQ(Delete("media"), 200);
    EXPECT_GE(Clock::now() - start, 1s);
    EXPECT_LT(Clock::now() - start, PATIENCE / 2);
    EXPECT_TRUE(log.HasInfo("bundle collection dir[" + collection.Path() + "] is not synced yet."));
    hangs = false;
}

TEST_F(ADeleteRequest, SucceedsEvenIfTheRemovalCannotBeSynced)
{
    collection.Bundle("media").Write();
    StartUp();
    const Fault fault(Call::FSYNC, EIO);
    EXPECT_EQ(Delete("media"), 200);
    EXPECT_TRUE(
        log.HasError("bundle collection dir[" + collection.Path() + "] can not be synced: Input/output error."));
}

TEST_F(ADeleteRequest, IsAnsweredBeforeItsEventIsPublished)
{
    collection.Bundle("media").Write();
    StartUp();
    const EventFifo fifo;
    std::size_t repliesBefore = 0;
    {
        const BeforeEach publishing(Call::SPRINTF_S, [&repliesBefore](int) {
            const auto sent = TakeSentMessages();
            repliesBefore += sent.size();
        });
        const Reply reply = Ask(4, 0, NameField("media"));
        EXPECT_EQ(reply.count, 0) << "there is a second reply";
    }
    EXPECT_EQ(repliesBefore, 1U);
}

TEST_F(ADeleteRequest, SucceedsWithoutAnEventService)
{
    collection.Bundle("media").Write();
    StartUp();
    EXPECT_EQ(Delete("media"), 200);
    EXPECT_FALSE(Exists(collection / "media"));
    EXPECT_TRUE(log.InOrder({"success to rm : [" + (collection / "media") + "].", publishFailure}));
}

TEST_F(ADeleteRequest, SucceedsForABundleThatWasAddedAfterItsRequirement)
{
    StartUp();
    RaiseAdded(collection.Bundle("base").Write());
    RaiseAdded(collection.Bundle("media").Requires("base").Write());
    ASSERT_TRUE(log.Has("bundle[media] state changing[Starting] -> [Active]"));
    EXPECT_EQ(Delete("media"), 200);
    EXPECT_FALSE(Exists(collection / "media"));
    EXPECT_TRUE(Exists(collection / "base"));
}

TEST_F(ADeleteRequest, FailsForABundleThatCannotBeStopped)
{
    collection.Bundle("stuck").Write();
    StartUp();
    collection.Bundle("stuck").Manifest("[global]\nbundle_name = renamed\nbundle_load_mode = 0\n").Write();
    RaiseModified(collection / "stuck"); // no bundle is registered under the new name, so this one cannot be stopped
    log.Restart();
    const EventFifo fifo;
    EXPECT_EQ(Delete("stuck"), 400);
    EXPECT_TRUE(log.HasError("uninstalling bundle[renamed] failed."));
    EXPECT_TRUE(log.InOrder({"find bundle done.", "stop bundle[renamed]...", "uninstalling bundle[renamed] failed."}));
    EXPECT_FALSE(log.Has("stop bundle done."));
    EXPECT_TRUE(Exists(collection / "stuck"));
    EXPECT_EQ(fifo.Received(), "");
}

TEST_F(ADeleteRequest, FailsWhenTheUnloadingDoes)
{
    collection.Bundle("media").Uninstall("#!/bin/sh\n").Write();
    StartUp();
    log.Restart();
    const BeforeEach launch(Call::LAUNCH, [](int) { throw std::runtime_error("unheard of"); });
    EXPECT_EQ(Delete("media"), 400);
    EXPECT_TRUE(log.InOrder({"stop bundle done.", "unload bundle[media]...", "uninstalling bundle[media] failed."}));
    EXPECT_TRUE(Exists(collection / "media"));
}

TEST_F(ADeleteRequest, FailsWhenTheRemovalCannotBeLaunched)
{
    collection.Bundle("media").Write();
    StartUp();
    log.Restart();
    const EventFifo fifo;
    const Fault fault(Call::LAUNCH, EAGAIN);
    EXPECT_EQ(Delete("media"), 400);
    EXPECT_TRUE(log.HasError("remove cmd exception.exception info: [System exception: no launch]."));
    EXPECT_FALSE(log.HasPart("success to rm"));
    EXPECT_EQ(fifo.Received(), "");
}

TEST_F(ADeleteRequest, FailsWhenTheRemovalCannotBeWaitedFor)
{
    collection.Bundle("media").Write();
    StartUp();
    log.Restart();
    const Fault fault(Call::WAIT_FOR_PROCESS, ECHILD);
    EXPECT_EQ(Delete("media"), 400);
    EXPECT_TRUE(log.HasError("remove cmd exception.exception info: [System exception: no wait]."));
    EXPECT_FALSE(log.HasPart("success to rm"));
}

TEST_F(ADeleteRequest, SucceedsEvenIfTheRemovalHasNoGroupOfItsOwn)
{
    collection.Bundle("media").Write();
    StartUp();
    log.Restart();
    const Fault fault(Call::SETPGID, EPERM);
    EXPECT_EQ(Delete("media"), 200);
    EXPECT_TRUE(log.HasPart(" to pgid 0 failed errno Operation not permitted "));
    EXPECT_TRUE(log.HasPart("setpgid "));
    EXPECT_FALSE(Exists(collection / "media"));
}

TEST_F(ADeleteRequest, FailsInAProgramThatIsNotTheServer)
{
    class Other : public Poco::Util::Application {};
    const Other other;
    EXPECT_EQ(Delete("media"), 400);
    EXPECT_TRUE(log.HasError("request fail.exception info: [std::bad_cast]."));
}

TEST_F(ADeleteRequest, IsAnsweredWithFailureAfterAnyException)
{
    collection.Bundle("media").Write();
    StartUp();
    const BeforeEach launch(Call::LAUNCH, [](int) { throw std::runtime_error("unheard of"); });
    EXPECT_EQ(Delete("media"), 400);
    EXPECT_TRUE(log.HasError("request fail.exception info: [unheard of]."));
}

TEST_F(ADeleteRequest, LeavesNoBundleForTheLaterRemovalEvent)
{
    const std::string path = collection.Bundle("media").Write();
    StartUp();
    ASSERT_EQ(Delete("media"), 200);
    log.Restart();
    RaiseRemoved(path);
    EXPECT_TRUE(log.HasError("find bundle[" + path + "] fail."));
    EXPECT_FALSE(log.HasPart("uninstalling"));
}
