// bundlectl put, and a power cut at each of its system calls that change files.
#include "bundlectl/author/killed_program.h"
#include "bundlectl/verb_test.h"
#include "support/collection_builder.h"
#include "support/files.h"
#include "support/program.h"

#include <gtest/gtest.h>

#include <sched.h>
#include <sys/mount.h>
#include <unistd.h>

#include <filesystem>
#include <string>
#include <vector>

namespace {

namespace fs = std::filesystem;

Ended Sh(const std::string& command)
{
    return RunToEnd("/bin/sh", {"-c", command});
}

/// A file system in a file. A copy of the file at one moment does not contain what had not been written to the disk by
/// then.
class APowerCut : public ::testing::Test {
public:
    void SetUp() override
    {
        if (::geteuid() != 0) {
            GTEST_SKIP() << "file systems are mounted by root";
        }
        if (::unshare(CLONE_NEWNS) != 0 || ::mount("none", "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0) {
            GTEST_SKIP() << "there is no mount namespace of its own here";
        }
        one.Bundle("radio").Item("tunerd", "#!/bin/sh\n# one\n").Write();
        two.Bundle("radio").Item("tunerd", "#!/bin/sh\n# two\n").Write();
        fs::create_directory(Mount());
        const Ended made = Sh("truncate -s 8M " + Image("base") + " && mkfs.ext4 -q " + Image("base") +
                              " && mount -o loop " + Image("base") + " " + Mount());
        if (made.status != 0) {
            GTEST_SKIP() << "no ext4 image can be mounted here: " << made.errors;
        }
        fs::create_directory(Mount() + "/bundles");
        ASSERT_EQ(RunToEnd(BUNDLECTL_PUT_PROGRAM, PutOf(one)).status, 0);
        Unmount();
    }

    void TearDown() override { Sh("umount " + Mount() + " 2> /dev/null"); }

    std::vector<std::string> PutOf(const CollectionBuilder& version) const
    {
        return {"put", version / "radio", "--collection", Mount() + "/bundles", "--wait", "0"};
    }

    std::string Mount() const { return m_root / "mount"; }
    std::string Image(const std::string& name) const { return m_root / (name + ".img"); }

    void CopyImage(const std::string& from, const std::string& to) const
    {
        ASSERT_EQ(Sh("cp " + Image(from) + " " + Image(to)).status, 0);
    }
    void MountImage(const std::string& name) const
    {
        const Ended mounted = Sh("mount -o loop " + Image(name) + " " + Mount());
        ASSERT_EQ(mounted.status, 0) << mounted.errors;
    }
    void Unmount() const { ASSERT_EQ(Sh("umount " + Mount()).status, 0); }

    /// The version in that directory. Both of its files must be complete.
    std::string PresentVersion() const
    {
        for (const auto* const version : {&one, &two}) {
            if (ReadFile(Mount() + "/bundles/radio/bin/tunerd") == ReadFile(*version / "radio/bin/tunerd") &&
                ReadFile(Mount() + "/bundles/radio/BundleManifest.ini") ==
                    ReadFile(*version / "radio/BundleManifest.ini")) {
                return version == &one ? "one" : "two";
            }
        }
        return "half a bundle";
    }

    CollectionBuilder one;
    CollectionBuilder two;

private:
    TemporaryDirectory m_root;
};

} // namespace

TEST_F(APowerCut, LeavesTheOldOrTheNewVersion)
{
    std::vector<std::string> arguments = PutOf(two);
    arguments.insert(arguments.begin(), BUNDLECTL_PUT_PROGRAM);
    bool wasCut = true;
    std::string found;
    int cuts = 0;
    for (int stop = 0; wasCut; ++stop) {
        CopyImage("base", "work");
        MountImage("work");
        wasCut = RunKilledAt(arguments, stop, [this] { CopyImage("work", "cut"); });
        if (!wasCut) {
            CopyImage("work", "cut"); // right after its end, before anything else is written out
        }
        Unmount();
        MountImage("cut");
        found = PresentVersion();
        ASSERT_TRUE(found == "one" || found == "two") << "cut at stop " << stop << ": " << found;
        if (wasCut) {
            ++cuts;
            const Ended next = RunToEnd(BUNDLECTL_PUT_PROGRAM, PutOf(two));
            ASSERT_EQ(next.status, 0) << "after stop " << stop << ": " << next.errors;
            ASSERT_EQ(PresentVersion(), "two");
        }
        Unmount();
    }
    EXPECT_EQ(found, "two") << "what put has reported is on the disk";
    EXPECT_GT(cuts, 20);
}
