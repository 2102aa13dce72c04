#include "unit/model/bundle_on_disk.h"

#include <Poco/Exception.h>

#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <istream>
#include <memory>
#include <sstream>
#include <stdexcept>
#include <string>
#include <thread>
#include <utility>
#include <vector>

using SystemServer::Bundle;
using SystemServer::BundleManifest;
using SystemServer::BundleStorage;

namespace {

constexpr const char* GLOBAL = "[global]\nbundle_load_mode = 0\nbundle_name = ";

class ABundle : public BundleOnDisk {};
class UpdatingABundle : public BundleOnDisk {};

/// A storage whose file cannot be opened.
class BrokenStorage : public BundleStorage {
public:
    BrokenStorage() : BundleStorage("/nowhere") {}
    std::istream* GetResourceFile(const std::string& /*relativePath*/) const override
    {
        throw Poco::OpenFileException("no way in");
    }
};

/// A storage whose file can be opened once.
class FailingStorage : public BundleStorage {
public:
    explicit FailingStorage(const std::string& path) : BundleStorage(path) {}
    std::istream* GetResourceFile(const std::string& /*relativePath*/) const override
    {
        if (std::exchange(m_hasBeenOpened, true)) {
            throw Poco::OpenFileException("no way in");
        }
        return std::make_unique<std::istringstream>(GLOBAL + std::string("media\n")).release();
    }

private:
    mutable bool m_hasBeenOpened = false;
};

/// A storage that records when its stream and itself are destroyed.
class WatchedStorage : public BundleStorage {
public:
    explicit WatchedStorage(std::string text) : BundleStorage("/nowhere"), m_text(std::move(text)) {}

    std::istream* GetResourceFile(const std::string& relativePath) const override
    {
        asked = relativePath;
        return std::make_unique<WatchedStream>(m_text, openStreams).release();
    }

    mutable std::string asked;
    mutable int openStreams = 0;

private:
    class WatchedStream : public std::istringstream {
    public:
        WatchedStream(const std::string& text, int& open) : std::istringstream(text), m_open(open) { ++m_open; }
        ~WatchedStream() override { --m_open; }
        WatchedStream(const WatchedStream&) = delete;
        WatchedStream& operator=(const WatchedStream&) = delete;

    private:
        int& m_open;
    };

    std::string m_text;
};

} // namespace

TEST(TheConstantsOfABundle, AreThoseOfTheLayoutOnDisk)
{
    EXPECT_EQ(Bundle::BUNDLE_MANIFEST_FILE, "BundleManifest.ini");
    EXPECT_EQ(Bundle::BUNDLE_MANIFEST_FILE_PATH, "./");
    EXPECT_EQ(Bundle::BUNDLE_BIN_FILE_PATH, "./bin/");
    EXPECT_EQ(Bundle::BUNDLE_SCRIPT_FILE_PATH, "./script/");
    EXPECT_EQ(Bundle::BUNDLE_MANIFEST_FILE_LOCATION, "./BundleManifest.ini");
}

TEST(TheStatesOfABundle, HaveTheirValuesAndNames)
{
    const std::vector<std::pair<int, std::string>> states = {{1, "Installed"}, {2, "Uninstalled"}, {4, "Resolved"},
                                                             {8, "Starting"},  {16, "Stopping"},   {32, "Active"}};
    EXPECT_EQ(Bundle::m_bundleStateStrMap.size(), states.size());
    for (const auto& [value, name] : states) {
        EXPECT_EQ(Bundle::m_bundleStateStrMap.at(static_cast<Bundle::BUNDLE_STATE_E>(value)), name);
    }
    EXPECT_EQ(Bundle::BUNDLE_INSTALLED, 1);
    EXPECT_EQ(Bundle::BUNDLE_UNINSTALLED, 2);
    EXPECT_EQ(Bundle::BUNDLE_RESOLVED, 4);
    EXPECT_EQ(Bundle::BUNDLE_STARTING, 8);
    EXPECT_EQ(Bundle::BUNDLE_STOPPING, 16);
    EXPECT_EQ(Bundle::BUNDLE_ACTIVE, 32);
    EXPECT_EQ(Bundle::BUNDLE_INSTALLED_STATE_STR, "Installed");
    EXPECT_EQ(Bundle::BUNDLE_UNINSTALLED_STATE_STR, "Uninstalled");
    EXPECT_EQ(Bundle::BUNDLE_RESOLVED_STATE_STR, "Resolved");
    EXPECT_EQ(Bundle::BUNDLE_STARTING_STATE_STR, "Starting");
    EXPECT_EQ(Bundle::BUNDLE_STOPPING_STATE_STR, "Stopping");
    EXPECT_EQ(Bundle::BUNDLE_ACTIVE_STATE_STR, "Active");
}

TEST_F(ABundle, IsInstalledWhenItIsNew)
{
    EXPECT_EQ(BundleAt(path)->GetCurState(), 1);
    EXPECT_FALSE(log.HasPart("state changing"));
}

TEST_F(ABundle, ReadsItsManifestThroughItsStorageAndClosesIt)
{
    const auto storage = std::make_shared<WatchedStorage>(GLOBAL + std::string("media\n"));
    const Bundle bundle(storage);
    EXPECT_EQ(storage->asked, "./BundleManifest.ini");
    EXPECT_EQ(storage->openStreams, 0);
    EXPECT_EQ(bundle.GetStorage(), storage);
    EXPECT_EQ(NameOf(bundle), "media");
}

TEST_F(ABundle, IsNotMadeOfABrokenManifest)
{
    const auto storage = std::make_shared<WatchedStorage>("[global]\n");
    EXPECT_THROW(Bundle{storage}, Poco::NotFoundException);
    EXPECT_EQ(storage->openStreams, 0);
    EXPECT_EQ(log.Messages(), std::vector<std::string>{"parse bundle manifest fail."});
}

TEST_F(ABundle, IsNotMadeWithoutAManifest)
{
    const std::string empty = collection.Bundle("empty").NoManifest().Write();
    try {
        BundleAt(empty);
        FAIL() << "a directory without a manifest was accepted";
    } catch (const Poco::FileNotFoundException& e) {
        EXPECT_EQ(e.message(), "[./BundleManifest.ini] not found.");
    }
    EXPECT_TRUE(log.HasError("resource file[" + empty + "/BundleManifest.ini] does not exist."));
}

TEST_F(ABundle, IsNotMadeOfAManifestThatIsADirectory)
{
    const std::string odd = collection.Bundle("odd").NoManifest().Write();
    ASSERT_EQ(::mkdir((odd + "/BundleManifest.ini").c_str(), 0700), 0);
    EXPECT_THROW(BundleAt(odd), Poco::FileNotFoundException);
    EXPECT_TRUE(log.HasError("[" + odd + "/BundleManifest.ini] is directory."));
}

TEST_F(ABundle, IsNotMadeOfAManifestThatIsAFifo)
{
    const std::string odd = collection.Bundle("odd").NoManifest().Write();
    ASSERT_EQ(::mkfifo((odd + "/BundleManifest.ini").c_str(), 0600), 0);
    EXPECT_THROW(BundleAt(odd), Poco::FileException);
}

TEST_F(ABundle, PassesOnTheExceptionOfItsStorage)
{
    EXPECT_THROW(Bundle{std::make_shared<BrokenStorage>()}, Poco::OpenFileException);
}

TEST_F(ABundle, LogsEachChangeOfItsState)
{
    const auto bundle = BundleAt(path);
    log.Restart();
    bundle->SetCurState(Bundle::BUNDLE_RESOLVED);
    EXPECT_EQ(bundle->GetCurState(), Bundle::BUNDLE_RESOLVED);
    bundle->SetCurState(Bundle::BUNDLE_STARTING);
    bundle->SetCurState(Bundle::BUNDLE_ACTIVE);
    bundle->SetCurState(Bundle::BUNDLE_ACTIVE);
    bundle->SetCurState(Bundle::BUNDLE_STOPPING);
    bundle->SetCurState(Bundle::BUNDLE_UNINSTALLED);
    EXPECT_EQ(bundle->GetCurState(), Bundle::BUNDLE_UNINSTALLED);
    EXPECT_EQ(log.Messages(), (std::vector<std::string>{"bundle[media] state changing[Installed] -> [Resolved]",
                                                        "bundle[media] state changing[Resolved] -> [Starting]",
                                                        "bundle[media] state changing[Starting] -> [Active]",
                                                        "bundle[media] state changing[Active] -> [Active]",
                                                        "bundle[media] state changing[Active] -> [Stopping]",
                                                        "bundle[media] state changing[Stopping] -> [Uninstalled]"}));
    EXPECT_EQ(log.Records().at(0).level, "INFO");
}

TEST_F(ABundle, RefusesAnUnknownState)
{
    const auto bundle = BundleAt(path);
    bundle->SetCurState(Bundle::BUNDLE_RESOLVED);
    log.Restart();
    for (const int state : {3, 0, 64, -1}) {
        // NOLINTNEXTLINE(clang-analyzer-optin.core.EnumCastOutOfRange): the value out of range is the test
        EXPECT_THROW(bundle->SetCurState(static_cast<Bundle::BUNDLE_STATE_E>(state)), std::out_of_range);
        EXPECT_EQ(bundle->GetCurState(), Bundle::BUNDLE_RESOLVED);
    }
    EXPECT_TRUE(log.Messages().empty());
}

TEST_F(ABundle, KnowsWhetherItsManifestIsOutdated)
{
    const std::string manifest = path + "/BundleManifest.ini";
    const std::string text = ReadFile(manifest);
    const auto bundle = BundleAt(path);
    EXPECT_FALSE(bundle->IsManifestOutdated());
    WriteFile(manifest, text + "\n");
    EXPECT_TRUE(bundle->IsManifestOutdated());
    bundle->Update();
    EXPECT_FALSE(bundle->IsManifestOutdated());
    WriteFile(manifest, text);
    EXPECT_TRUE(bundle->IsManifestOutdated());
    WriteFile(manifest, "");
    EXPECT_TRUE(bundle->IsManifestOutdated());
    WriteFile(manifest, text + std::string(BundleManifest::MAX_SIZE, ';'));
    EXPECT_TRUE(bundle->IsManifestOutdated());
    EXPECT_THROW(bundle->Update(), Poco::DataFormatException);
    WriteFile(manifest, text + "\n");
    EXPECT_FALSE(bundle->IsManifestOutdated()) << "it was written again with the loaded content";
}

TEST_F(ABundle, TreatsAnUnreadableManifestAsCurrent)
{
    const std::string manifest = path + "/BundleManifest.ini";
    const auto bundle = BundleAt(path);
    log.Restart();
    ASSERT_EQ(::unlink(manifest.c_str()), 0);
    EXPECT_FALSE(bundle->IsManifestOutdated());
    ASSERT_EQ(::mkfifo(manifest.c_str(), 0600), 0);
    EXPECT_FALSE(bundle->IsManifestOutdated());
    ASSERT_EQ(::unlink(manifest.c_str()), 0);
    ASSERT_EQ(::mkdir(manifest.c_str(), 0700), 0);
    EXPECT_FALSE(bundle->IsManifestOutdated());
    EXPECT_TRUE(log.Messages().empty());
    ASSERT_EQ(::rmdir(manifest.c_str()), 0);
    WriteFile(manifest, "");
    EXPECT_FALSE(Bundle(std::make_shared<FailingStorage>(path)).IsManifestOutdated());
}

TEST_F(ABundle, WritesNothingAtItsEnd)
{
    auto storage = std::make_shared<WatchedStorage>(GLOBAL + std::string("media\n"));
    auto bundle = std::make_shared<Bundle>(storage);
    const std::weak_ptr<BundleManifest> manifest = bundle->GetManifest();
    const std::weak_ptr<WatchedStorage> watched = storage;
    storage.reset();
    log.Restart();
    bundle.reset();
    EXPECT_TRUE(manifest.expired());
    EXPECT_TRUE(watched.expired());
    EXPECT_TRUE(log.Messages().empty());
}

TEST_F(UpdatingABundle, TakesTheNewManifest)
{
    const auto bundle = BundleAt(path);
    const auto before = bundle->GetManifest();
    bundle->SetCurState(Bundle::BUNDLE_ACTIVE);
    WriteFile(path + "/BundleManifest.ini", GLOBAL + std::string("newmedia\n"));
    bundle->Update();
    EXPECT_EQ(NameOf(*bundle), "newmedia");
    EXPECT_EQ(bundle->GetCurState(), Bundle::BUNDLE_ACTIVE);
    EXPECT_EQ(bundle->GetStorage()->GetRootPath(), path);
    EXPECT_EQ(before->GetBundleName(), "media") << "a holder of the old manifest keeps it";
    log.Restart();
    bundle->SetCurState(Bundle::BUNDLE_STOPPING);
    EXPECT_TRUE(log.Has("bundle[newmedia] state changing[Active] -> [Stopping]"));
}

TEST_F(UpdatingABundle, RunsTheUpdateScriptAfterTheManifestIsRead)
{
    const std::string script = "#!/bin/sh\nprintf '[global]\\nbundle_load_mode = 0\\nbundle_name = late\\n' > " + path +
                               "/BundleManifest.ini\n";
    const auto bundle = BundleAt(collection.Bundle("media").Update(script).Write());
    log.Restart();
    bundle->Update();
    EXPECT_EQ(NameOf(*bundle), "media");
    EXPECT_TRUE(log.InOrder({"bundle name ------> [media]", "==================================================",
                             "run script[" + ScriptPath("update.sh") + "]...",
                             "run script[" + ScriptPath("update.sh") + "] done."}));
    bundle->Update();
    EXPECT_EQ(NameOf(*bundle), "late");
}

TEST_F(UpdatingABundle, KeepsTheOldManifestWhenTheNewOneIsBroken)
{
    const auto bundle = BundleAt(collection.Bundle("media").Update("#!/bin/sh\n").Write());
    const auto before = bundle->GetManifest();
    WriteFile(path + "/BundleManifest.ini", "[global]\nbundle_name = newmedia\n");
    log.Restart();
    EXPECT_THROW(bundle->Update(), Poco::NotFoundException);
    EXPECT_EQ(bundle->GetManifest(), before);
    EXPECT_EQ(log.Messages(), std::vector<std::string>{"parse bundle manifest fail."});
}

TEST_F(UpdatingABundle, KeepsTheOldManifestWithoutANewOne)
{
    const auto bundle = BundleAt(collection.Bundle("media").Update("#!/bin/sh\n").Write());
    const auto before = bundle->GetManifest();
    ASSERT_EQ(::unlink((path + "/BundleManifest.ini").c_str()), 0);
    log.Restart();
    try {
        bundle->Update();
        FAIL() << "a text that is no manifest was accepted";
    } catch (const Poco::FileNotFoundException& e) {
        EXPECT_EQ(e.message(), "[./BundleManifest.ini] not found.");
    }
    EXPECT_EQ(bundle->GetManifest(), before);
    EXPECT_FALSE(log.HasPart("run script"));
}

TEST_F(UpdatingABundle, DoesNotDisturbConcurrentReadersOfTheManifest)
{
    const auto bundle = BundleAt(path);
    std::atomic<bool> done{false};
    std::atomic<int> reads{0};
    std::thread reader([&] {
        while (!done) {
            EXPECT_EQ(NameOf(*bundle), "media");
            ++reads;
        }
    });
    for (int i = 0; i < 20 || reads < 20; ++i) {
        bundle->Update();
    }
    done = true;
    reader.join();
}
