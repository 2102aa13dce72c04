#include "bundle_activator_factory.h"

#include "bundle_process_activator.h"
#include "bundle_thread_activator.h"
#include "support/collection_builder.h"
#include "support/fault.h"
#include "support/log_capture.h"

#include <gtest/gtest.h>

#include <limits>
#include <memory>

using SystemServer::Bundle;
using SystemServer::BundleActivator;
using SystemServer::BundleActivatorFactory;
using SystemServer::BundleManifest;
using SystemServer::BundleProcessActivator;
using SystemServer::BundleStorageDir;
using SystemServer::BundleThreadActivator;

namespace {

class MakingAnActivator : public ::testing::Test {
public:
    std::shared_ptr<BundleActivator> ForMode(int mode) const
    {
        // NOLINTNEXTLINE(clang-analyzer-optin.core.EnumCastOutOfRange): a manifest may carry any integer
        return BundleActivatorFactory::CreateBundleActivator(static_cast<BundleManifest::LoadModeType>(mode), bundle);
    }

    CollectionBuilder collection;
    std::shared_ptr<Bundle> bundle = std::make_shared<Bundle>(std::make_shared<BundleStorageDir>(
        collection.Bundle("media").Item("mediad").Library("libx.so", "Succeed", THREAD_ITEM).Write()));
    LogCapture log;
};

} // namespace

TEST_F(MakingAnActivator, GivesAProcessActivatorForModeZero)
{
    EXPECT_TRUE(std::dynamic_pointer_cast<BundleProcessActivator>(ForMode(0)));
}

TEST_F(MakingAnActivator, GivesAThreadActivatorForModeOne)
{
    EXPECT_TRUE(std::dynamic_pointer_cast<BundleThreadActivator>(ForMode(1)));
}

TEST_F(MakingAnActivator, GivesNoneForAnyOtherMode)
{
    for (const int mode : {2, 3, 7, -1, 256, std::numeric_limits<int>::max(), std::numeric_limits<int>::min()}) {
        EXPECT_FALSE(ForMode(mode)) << mode;
    }
    EXPECT_TRUE(log.Messages().empty());
}

TEST_F(MakingAnActivator, GivesAnotherOneEachTime)
{
    for (const int mode : {0, 1}) {
        EXPECT_NE(ForMode(mode), ForMode(mode));
    }
}

TEST_F(MakingAnActivator, StartsNothing)
{
    const CallCounter forks(Call::FORK);
    const CallCounter threads(Call::START_THREAD);
    const auto process = ForMode(0);
    const auto thread = ForMode(1);
    EXPECT_EQ(forks.Count(), 0);
    EXPECT_EQ(threads.Count(), 0);
    EXPECT_TRUE(log.Messages().empty());
}

TEST_F(MakingAnActivator, HoldsTheBundleUntilItIsReleased)
{
    const std::weak_ptr<Bundle> watched = bundle;
    auto activator = ForMode(0);
    bundle.reset();
    EXPECT_FALSE(watched.expired());
    activator.reset();
    EXPECT_TRUE(watched.expired());
}
