// The daemon on the usual root of a device: a read-only image, and a layer above it that takes all writes.

#include "support/overlay.h"
#include "system/hot_plug/hot_plug.h"

namespace {

/// The layers are on two file systems, so a directory gets another inode number each time the kernel drops its inode.
class ADaemonOnAnOverlay : public OverlayRoot, public HotPlug {
protected:
    ADaemonOnAnOverlay() : OverlayRoot({"", "tmpfs", ",xino=off"}) {}

    void SetUp() override
    {
        // Its first write copies directories to the upper layer. Later writes continue while the kernel drops inodes.
        collection.Bundle("radio")
            .Item("radiod.sh", Shell("while :; do echo >> " + In("radio/data/log") + "; sleep 0.1; done"))
            .Update(Shell("echo >> " + Note("updates") + "; touch " + In("radio/bin/made-by-the-update")))
            .Write();
        RunShell("mkdir \"$COLLECTION\"/radio/data");
        collection.Bundle("tuner").Write();
        const std::string missing = Mount();
        if (!missing.empty()) {
            GTEST_SKIP() << missing;
        }
        HotPlug::SetUp();
    }

    bool WritesOn()
    {
        const std::size_t before = ReadFile(In("radio/data/log")).size();
        return Eventually(DaemonRunner::PATIENCE, [&] { return ReadFile(In("radio/data/log")).size() > before; });
    }
};

} // namespace

TEST_F(ADaemonOnAnOverlay, KeepsABundleThatWritesRunningWhileTheKernelDropsItsInodes)
{
    const pid_t item = daemon.WaitForItem("radio", "radiod.sh");
    ASSERT_NE(item, 0);
    for (int i = 0; i < 3; ++i) {
        ASSERT_TRUE(WritesOn());
        DropInodes();
        PassScans();
    }
    EXPECT_EQ(Modified(), 0);
    EXPECT_EQ(daemon.PidsOf("radio", "radiod.sh"), std::vector<pid_t>{item});
}

TEST_F(ADaemonOnAnOverlay, UpdatesABundleOnceForEachChange)
{
    ASSERT_NE(daemon.WaitForItem("radio", "radiod.sh"), 0);
    for (int i = 1; i <= 2; ++i) {
        DropInodes();
        RunShell("echo '; new' >> \"$COLLECTION\"/radio/BundleManifest.ini");
        ASSERT_NE(daemon.WaitForItem("radio", "radiod.sh", i + 1), 0);
        DropInodes();
        PassScans();
        EXPECT_EQ(Modified(), i);
    }
    EXPECT_EQ(ReadFile(Note("updates")), "\n\n");
}

TEST_F(ADaemonOnAnOverlay, DeletesABundleOfTheLowerLayer)
{
    ASSERT_NE(daemon.WaitForItem("radio", "radiod.sh"), 0);
    DropInodes();
    EXPECT_EQ(RequestDelete("radio"), 200);
    EXPECT_FALSE(Exists(In("radio")));
    PassScans();
    EXPECT_TRUE(IsUnknown("radio"));
    EXPECT_FALSE(IsUnknown("tuner"));
}
