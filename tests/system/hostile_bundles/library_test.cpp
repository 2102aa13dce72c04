// Libraries on threads of the server. Some of them end the server, and do so at each start.

#include "system/hostile_bundles/hostile_bundle.h"

#include <algorithm>
#include <filesystem>

namespace {

namespace fs = std::filesystem;
using namespace std::chrono_literals;

class ALibraryThatEndsTheServer : public HostileBundles, public testing::WithParamInterface<const char*> {};
class ALibraryThatIsNeverLoadedCompletely : public HostileBundles {};

} // namespace

TEST_P(ALibraryThatEndsTheServer, DoesSoAtEachStartUntilItsBundleIsTakenOut)
{
    collection.Bundle("bomb").ThreadMode().Library("libbomb.so", GetParam(), HOSTILE_LIBRARY).Write();
    collection.Bundle("radio").Copy("radiod", TEST_SLEEPER).Write();
    for (int i = 1; i <= 2; ++i) {
        daemon.Start();
        const auto end = daemon.WaitForEnd();
        ASSERT_TRUE(end);
        EXPECT_TRUE(end->signal != 0 || end->status != 0);
        EXPECT_EQ(daemon.CountInLog("bundle[bomb] dyn lib[libbomb.so] activate start..."), i);
    }
    fs::remove_all(In("bomb"));
    EXPECT_TRUE(StartServing());
    EXPECT_TRUE(IsUnharmed());
    EXPECT_EQ(daemon.Stop().status, 0);
}

INSTANTIATE_TEST_SUITE_P(Harms, ALibraryThatEndsTheServer, testing::Values("Abort", "Overflow", "Crash", "Exit"),
                         [](const auto& instance) { return std::string(instance.param); });

// The dynamic loader holds a lock while it runs a library's constructors. The end of the process needs the same lock.
TEST_F(ALibraryThatIsNeverLoadedCompletely, BlocksOtherLibrariesAndTheServersEnd)
{
    daemon.SetEnvironment("LD_PRELOAD", ""); // a preloaded library may look up a symbol, and block
    collection.Bundle("holder").ThreadMode().Library("libholder.so", "ReturnZero", HOSTILE_CONSTRUCTOR).Write();
    staging.Bundle("meter").ThreadMode().Library("libmeter.so", "ReturnZero", TEST_LIBRARY).Write();
    ASSERT_TRUE(daemon.StartServing());
    MoveIn("meter");
    ASSERT_TRUE(daemon.WaitForLog("bundle[meter] dyn lib[libmeter.so] activate start..."));
    EXPECT_FALSE(daemon.WaitForLog("bundle[meter] dyn lib[libmeter.so] activate done.", 1, 1s));
    staging.Bundle("radio").Copy("radiod", TEST_SLEEPER).Write();
    MoveIn("radio");
    EXPECT_NE(daemon.WaitForItem("radio", "radiod"), 0) << "programs are still launched";
    EXPECT_EQ(RequestDelete("radio"), 200);
    daemon.Signal(SIGTERM);
    EXPECT_FALSE(daemon.WaitForEnd(1s));
    EXPECT_EQ(daemon.Stop(SIGKILL).signal, SIGKILL);
}
