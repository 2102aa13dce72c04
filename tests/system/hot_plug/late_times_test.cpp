// Files with times after January 2038, which do not fit into 32 bits.

#include "system/hot_plug/hot_plug.h"

#include <cerrno>

namespace {

/// A daemon on a collection with a bundle from 2040.
class ABundleFrom2040 : public HotPlug {
protected:
    void SetUp() override
    {
        WriteBundle(collection, "radio");
        WriteBundle(staging, "tuner");
    }

    void WriteBundle(const CollectionBuilder& place, const std::string& name) const
    {
        const auto noted = [&](const std::string& what) { return Shell("echo >> " + Note(name + what)); };
        place.Bundle(name)
            .Copy("itemd", TEST_SLEEPER)
            .Install(noted("-installed"))
            .Update(noted("-updated"))
            .Uninstall(noted("-uninstalled"))
            .Write();
        RunShell("find " + place / name + " -exec touch -h -d 2040-01-01 {} +");
    }

    /// Checks that hold for every bundle, at the start and later.
    void ComesChangesAndGoes()
    {
        ASSERT_TRUE(daemon.StartServing());
        EXPECT_TRUE(IsStarted("radio"));
        MoveIn("tuner");
        EXPECT_TRUE(IsStarted("tuner"));
        EXPECT_TRUE(Exists(Note("radio-installed")));
        EXPECT_TRUE(Exists(Note("tuner-installed")));
        RunShell("touch -d 2040-01-02 \"$COLLECTION\"/radio");
        EXPECT_TRUE(IsStarted("radio", 2));
        EXPECT_TRUE(Exists(Note("radio-updated")));
        EXPECT_EQ(RequestDelete("radio"), 200);
        EXPECT_TRUE(Exists(Note("radio-uninstalled")));
        EXPECT_FALSE(Exists(In("radio")));
    }
};

/// The same with a framework whose times have 32 bits, which failing calls simulate.
class ABundleFrom2040WithAnOldFramework : public ABundleFrom2040 {
protected:
    void SetUp() override
    {
        ABundleFrom2040::SetUp();
        Interpose("FAIL", "stat64:" + std::to_string(EOVERFLOW) + ":1000000:0");
        daemon.SetEnvironment("FAIL_IN", "libPoco");
    }
};

} // namespace

TEST_F(ABundleFrom2040, ComesChangesAndGoes)
{
    ComesChangesAndGoes();
}

TEST_F(ABundleFrom2040WithAnOldFramework, ComesChangesAndGoes)
{
    daemon.SetEnvironment("FAIL_FROM", "LoadAllBundles...");
    ComesChangesAndGoes();
}

TEST_F(ABundleFrom2040WithAnOldFramework, EndsTheStartWithAReasonWhereTheCollectionItselfIsFrom2040)
{
    daemon.SetEnvironment("FAIL_FROM", "bundle collection dir -> [");
    daemon.Start();
    const auto end = daemon.WaitForEnd();
    ASSERT_TRUE(end);
    EXPECT_EQ(end->status, 70) << "signal " << end->signal;
    EXPECT_NE(daemon.Errors().find("the framework can not look at it (Value too large for defined data type): " +
                                   collection.Path()),
              std::string::npos)
        << daemon.Errors();
}
