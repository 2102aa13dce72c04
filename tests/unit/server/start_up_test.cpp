#include "unit/server/open_server.h"

#include "support/eventually.h"

#include <Poco/Exception.h>

#include <cerrno>
#include <optional>
#include <stdexcept>
#include <thread>
#include <vector>

namespace {

class StartingTheServer : public TheServer {};

} // namespace

TEST_F(StartingTheServer, LogsItsStepsInOrder)
{
    collection.Bundle("media").Write();
    ReadConfig(ConfigFor(collection.Path()));
    log.Restart();
    server->initialize(*server);
    const Messages steps{"init bundle server...",
                         "bundle collection dir -> [" + collection.Path() + "]",
                         "create BundleFactory...",
                         "create BundleFactory done.",
                         "create BundleManager...",
                         "create BundleManager done.",
                         "LoadAllBundles...",
                         "load bundle from " + (collection / "media") + "...",
                         "load bundle done.",
                         "LoadAllBundles done.",
                         "ResolveAllBundles...",
                         "bundle[media] state changing[Installed] -> [Resolved]",
                         "ResolveAllBundles done.",
                         "StartAllBundles...",
                         "bundle[media] state changing[Starting] -> [Active]",
                         "StartAllBundles done.",
                         "init bundle server done."};
    EXPECT_TRUE(log.InOrder(steps));
    EXPECT_EQ(log.Messages().front(), steps.front());
    EXPECT_EQ(log.Messages().back(), steps.back());
    for (const LogRecord& record : log.Records()) {
        EXPECT_EQ(record.level, "INFO") << record.message;
    }
    EXPECT_NO_THROW(server->RethrowStartupFailure());
}

TEST_F(StartingTheServer, WritesNothingAtItsEndAfterAnEmptyCollection)
{
    StartUp();
    log.Restart();
    server.reset();
    EXPECT_TRUE(log.Messages().empty());
}

TEST_F(StartingTheServer, LogsEachStepOfAnEmptyCollectionAndNothingElse)
{
    ReadConfig(ConfigFor(collection.Path()));
    log.Restart();
    server->initialize(*server);
    EXPECT_EQ(log.Messages(), (Messages{"init bundle server...", "bundle collection dir -> [" + collection.Path() + "]",
                                        "create BundleFactory...", "create BundleFactory done.",
                                        "create BundleManager...", "create BundleManager done.", "LoadAllBundles...",
                                        "LoadAllBundles done.", "ResolveAllBundles...", "ResolveAllBundles done.",
                                        "StartAllBundles...", "StartAllBundles done.", "init bundle server done."}));
}

TEST_F(StartingTheServer, FailsWithoutTheKeyOfTheCollection)
{
    const std::string config = outside / "empty.ini";
    WriteFile(config, "[global]\n");
    ReadConfig(config);
    log.Restart();
    EXPECT_THROW(server->initialize(*server), Poco::NotFoundException);
    EXPECT_EQ(log.Messages(), Messages{"init bundle server..."});
    try {
        server->RethrowStartupFailure();
        FAIL() << "the failure is not rethrown";
    } catch (const Poco::NotFoundException& e) {
        EXPECT_EQ(e.displayText(), "Not found: global.bundle_collection_dir");
    }
}

TEST_F(StartingTheServer, FailsWithoutTheCollection)
{
    ReadConfig(ConfigFor(collection / "nowhere"));
    EXPECT_THROW(server->initialize(*server), Poco::Exception);
    EXPECT_THROW(server->RethrowStartupFailure(), Poco::Exception);
    EXPECT_FALSE(log.Has("create BundleFactory..."));
}

TEST_F(StartingTheServer, PassesOnExceptionsOfTheStandardLibrary)
{
    collection.Bundle("media").Item("ab").Write();
    ReadConfig(ConfigFor(collection.Path()));
    EXPECT_THROW(server->initialize(*server), std::out_of_range);
    EXPECT_THROW(server->RethrowStartupFailure(), std::out_of_range);
    EXPECT_FALSE(log.Has("LoadAllBundles done."));
}

TEST_F(StartingTheServer, FailsWhenTheWatchersEventsCannotBeSubscribed)
{
    std::optional<Fault> noLock;
    const SleepyWatchers failing([&noLock] { noLock.emplace(Call::LOCK_MUTEX, EINVAL, 1); });
    ReadConfig(ConfigFor(collection.Path()));
    try {
        server->initialize(*server);
        FAIL() << "it was subscribed without a lock";
    } catch (const Poco::SystemException& e) {
        EXPECT_EQ(e.message(), "cannot lock mutex");
    }
    EXPECT_FALSE(log.Has("create BundleFactory..."));
}

TEST_F(StartingTheServer, SkipsBundlesThatFail)
{
    collection.Bundle("broken").Manifest("[global]\n").Write();
    collection.Bundle("dependant").Requires("missing").Write();
    collection.Bundle("unstartable").ThreadMode().Item("noLibrary").Write();
    collection.Bundle("media").Write();
    StartUp();
    EXPECT_TRUE(
        log.HasError("failed to load bundles from " + (collection / "broken") + ":Not found: global.bundle_name"));
    EXPECT_TRUE(log.HasPart("failed to resolve bundle[dependant] :"));
    EXPECT_TRUE(log.HasPart("failed to start bundle[unstartable] :"));
    EXPECT_TRUE(log.InOrder({"bundle[media] state changing[Starting] -> [Active]", "init bundle server done."}));
}

TEST_F(StartingTheServer, StopsNothingWhenItEnds)
{
    collection.Bundle("media").Uninstall(Noting("uninstall")).Write();
    StartUp();
    log.Restart();
    server.reset();
    EXPECT_TRUE(log.Messages().empty());
    EXPECT_EQ(Notes(), "");
}

TEST_F(StartingTheServer, HoldsEventsUntilTheCollectionIsLoaded)
{
    // The watcher is made before the manager. Its events wait until start-up has read the collection.
    const std::string path = collection.Bundle("media").Write();
    const std::string gone = collection / "gone";
    std::vector<std::thread> events;
    const SleepyWatchers eager([&] {
        events.emplace_back([&] { RaiseAdded(path); });
        events.emplace_back([&] { RaiseRemoved(gone); });
        EXPECT_TRUE(Eventually(PATIENCE, [this] {
            return log.Count("dir item add event happen.") == 1 && log.Count("remove a bundle dir.") == 1;
        }));
    });
    StartUp();
    for (std::thread& event : events) {
        event.join();
    }
    EXPECT_TRUE(log.InOrder({"dir item add event happen.", "create BundleManager...", "load bundle[media] success.",
                             "bundle dir[" + path + "] is loaded already."}));
    EXPECT_TRUE(log.InOrder({"remove a bundle dir.", "LoadAllBundles done.", "find bundle[" + gone + "] fail."}));
    EXPECT_EQ(log.Count("load bundle[media] success."), 1);
    EXPECT_FALSE(log.HasPart("already exists"));
}

TEST_F(StartingTheServer, ReleasesWaitingEventsWhenItFails)
{
    const std::string path = collection.Bundle("media").Item("ab").Write();
    std::vector<std::thread> events;
    const SleepyWatchers eager([&] {
        events.emplace_back([&] { RaiseAdded(path); });
        events.emplace_back([&] { RaiseRemoved(path); });
        events.emplace_back([&] { RaiseModified(path); });
    });
    ReadConfig(ConfigFor(collection.Path()));
    EXPECT_THROW(server->initialize(*server), std::out_of_range);
    for (std::thread& event : events) {
        event.join();
    }
    EXPECT_FALSE(log.HasPart("load bundle from ["));
    EXPECT_FALSE(log.HasPart("find bundle["));
}
