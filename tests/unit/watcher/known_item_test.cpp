#include "known_item.h"
#include "support/collection_builder.h"
#include "support/eventually.h"
#include "support/fault.h"
#include "unit/faults/memory_sweep.h"

#include <gtest/gtest.h>

#include <fcntl.h>
#include <sys/stat.h>

#include <cerrno>
#include <filesystem>
#include <optional>
#include <utility>

using SystemServer::Fingerprinter;
using SystemServer::ItemFingerprint;
using SystemServer::KnownItem;
using namespace std::chrono_literals;

namespace {

class AnItem : public ::testing::Test {
public:
    AnItem() { known.Learn(path, Now()); }

    ItemFingerprint Now() { return fingerprinter.OfItem(AT_FDCWD, path, known.Fingerprint()); }
    bool HasChanged() { return known.HasChanged(path, Now()); }
    std::string Manifest() const { return path + "/BundleManifest.ini"; }

    /// Changes the time of an inode and nothing else.
    void ChangeInodeTime(const std::string& file)
    {
        const ItemFingerprint before = Now();
        EXPECT_TRUE(Eventually(5s, [&] { return ::chmod(file.c_str(), 0700) == 0 && Now() != before; }));
    }

    /// Overwrites the manifest with as many bytes and restores its time.
    void ExchangeAByteOfTheManifest() const
    {
        const auto time = std::filesystem::last_write_time(Manifest());
        std::string text = ReadFile(Manifest());
        text.back() = text.back() == ';' ? '#' : ';';
        WriteFile(Manifest(), text);
        std::filesystem::last_write_time(Manifest(), time);
    }

    CollectionBuilder collection;
    const std::string path = MakeBundle();
    std::atomic<bool> stopping{false};
    Fingerprinter fingerprinter{stopping};
    KnownItem known;

private:
    std::string MakeBundle() const
    {
        std::string bundle = collection.Bundle("radio").Item("radiod", "1").Install("2").Write();
        for (const char* const part : {"", "/bin", "/script", "/BundleManifest.ini"}) {
            EXPECT_EQ(::chmod((bundle + part).c_str(), 0700), 0);
        }
        return bundle;
    }
};

class AnItemOnAnOverlay : public AnItem {
public:
    AnItemOnAnOverlay() { known.Learn(path, Now()); }

private:
    OverlayEverywhere m_overlay;
};

} // namespace

TEST_F(AnItem, HasItsFileSystemAskedOnceAndIsNeitherListedNorRead)
{
    const CallCounter fileSystems(Call::STATFS);
    const CallCounter listings(Call::OPENDIR);
    const CallCounter files(Call::OPEN);
    known.Learn(path, Now());
    EXPECT_EQ(fileSystems.Count(), 1);
    EXPECT_FALSE(HasChanged());
    ChangeInodeTime(path);
    EXPECT_TRUE(HasChanged());
    EXPECT_FALSE(known.IsReplaced(path, Now()));
    EXPECT_EQ(fileSystems.Count(), 1);
    EXPECT_EQ(listings.Count(), 0);
    EXPECT_EQ(files.Count(), 0);
}

TEST_F(AnItemOnAnOverlay, HasNotChangedIfOnlyItsInodeTimesHave)
{
    for (const char* const part : {"", "/bin", "/script", "/BundleManifest.ini"}) {
        ChangeInodeTime(path + part);
        EXPECT_FALSE(HasChanged()) << part;
    }
    ExchangeAByteOfTheManifest();
    EXPECT_TRUE(HasChanged());
    EXPECT_TRUE(HasChanged()) << "until the change is known";
    known.Learn(path, Now());
    EXPECT_FALSE(HasChanged());
}

TEST_F(AnItemOnAnOverlay, HasChangedByEachDifferenceIfItsFileSystemIsUnknown)
{
    const Fault fault(Call::STATFS, EIO);
    known.Learn(path, Now());
    EXPECT_TRUE(fault.HasStruck());
    ChangeInodeTime(path);
    EXPECT_TRUE(HasChanged());
}

TEST_F(AnItemOnAnOverlay, IsUnchangedWhileItHasNoStatus)
{
    for (const auto& [call, error] : {std::pair{Call::OPENDIR, EMFILE}, std::pair{Call::READDIR, EIO},
                                      std::pair{Call::OPEN, EMFILE}, std::pair{Call::READ, EIO}}) {
        ChangeInodeTime(path);
        const bool isManifest = call == Call::OPEN || call == Call::READ;
        if (isManifest) {
            ExchangeAByteOfTheManifest();
        } else {
            const auto time = std::filesystem::last_write_time(path);
            WriteFile(path + "/new" + std::to_string(error), "");
            std::filesystem::last_write_time(path, time);
        }
        {
            const Fault fault(call, error);
            EXPECT_FALSE(HasChanged());
            EXPECT_TRUE(fault.HasStruck());
        }
        EXPECT_TRUE(HasChanged()) << "once its status can be read again";
        known.Learn(path, Now());
    }
}

TEST_F(AnItemOnAnOverlay, IsUnchangedWhileItsPartsHaveNoStatus)
{
    ExchangeAByteOfTheManifest();
    const ItemFingerprint now = Now();
    {
        const Fault fault(Call::FSTATAT, EIO);
        EXPECT_FALSE(known.HasChanged(path, now));
        EXPECT_TRUE(fault.HasStruck());
    }
    EXPECT_TRUE(HasChanged());
}

TEST_F(AnItemOnAnOverlay, IsNotAwaitedIfItsManifestIsAFifo)
{
    std::filesystem::remove(Manifest());
    ASSERT_EQ(::mkfifo(Manifest().c_str(), 0600), 0);
    EXPECT_TRUE(HasChanged());
    known.Learn(path, Now());
    EXPECT_FALSE(HasChanged());
}

TEST_F(AnItemOnAnOverlay, IsReplacedByADirectoryOfAnotherNumber)
{
    EXPECT_FALSE(known.IsReplaced(path, Now()));
    std::filesystem::rename(path, collection / "old");
    std::filesystem::copy(collection / "old", path, std::filesystem::copy_options::recursive);
    EXPECT_TRUE(known.IsReplaced(path, Now()));
    EXPECT_TRUE(HasChanged());
}

TEST_F(AnItemOnAnOverlay, KeepsItsFingerprintWhenMemoryRunsOut)
{
    MemorySweep sweep;
    ItemFingerprint now;
    sweep.Run(
        AllocationFault::Of::CALLER,
        [&] {
            known.Learn(path, Now());
            ExchangeAByteOfTheManifest();
            now = Now();
        },
        [&] {
            if (known.HasChanged(path, now)) {
                known.Learn(path, now);
            }
        },
        [&] { EXPECT_EQ(HasChanged(), sweep.RoundFailed()); });
}
