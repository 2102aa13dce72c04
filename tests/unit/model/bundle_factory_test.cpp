#include "bundle_factory.h"

#include "support/collection_builder.h"
#include "support/log_capture.h"

#include <Poco/Exception.h>

#include <gtest/gtest.h>

#include <memory>
#include <string>

using SystemServer::Bundle;
using SystemServer::BundleFactory;
using SystemServer::BundleStorageDirFactory;

namespace {

class MakingABundle : public ::testing::Test {
public:
    CollectionBuilder collection;
    std::shared_ptr<BundleFactory> factory = std::make_shared<BundleStorageDirFactory>();
    LogCapture log;
};

} // namespace

TEST_F(MakingABundle, TakesADirectoryWithAManifest)
{
    const std::string path = collection.Bundle("media").Requires("base").Item("mediad").Write();
    const std::shared_ptr<Bundle> bundle = factory->CreateBundle(path);
    ASSERT_TRUE(bundle);
    EXPECT_EQ(bundle->GetManifest()->GetBundleName(), "media");
    EXPECT_EQ(bundle->GetStorage()->GetRootPath(), path);
    EXPECT_EQ(bundle->GetCurState(), Bundle::BUNDLE_INSTALLED);
}

TEST_F(MakingABundle, RunsNoScript)
{
    const std::string mark = collection / "mark";
    const std::string path = collection.Bundle("media").Install("#!/bin/sh\ntouch " + mark + "\n").Write();
    ASSERT_TRUE(factory->CreateBundle(path));
    EXPECT_FALSE(Exists(mark));
    EXPECT_FALSE(log.HasPart("run script"));
}

TEST_F(MakingABundle, GivesItTheObserverOfScripts)
{
    std::string told;
    BundleStorageDirFactory observed(
        [&told](const SystemServer::Bundle& teller) { told = teller.GetStorage()->GetRootPath(); });
    const std::string path = collection.Bundle("media").Install("#!/bin/sh\n").Write();
    observed.CreateBundle(path)->RunScript("install.sh");
    EXPECT_EQ(told, path);
}

TEST_F(MakingABundle, RefusesAFile)
{
    const std::string path = collection / "file";
    WriteFile(path, "");
    EXPECT_FALSE(factory->CreateBundle(path));
    EXPECT_TRUE(log.HasError("BundleStoragePath[" + path + "] is not a directory."));
}

TEST_F(MakingABundle, ThrowsForAPathThatDoesNotExist)
{
    EXPECT_THROW(factory->CreateBundle(collection / "nowhere"), Poco::FileNotFoundException);
}

TEST_F(MakingABundle, ThrowsForADirectoryWithoutAManifest)
{
    const std::string path = collection.Bundle("media").NoManifest().Write();
    try {
        factory->CreateBundle(path);
        FAIL() << "a directory without a manifest was accepted";
    } catch (const Poco::FileNotFoundException& e) {
        EXPECT_EQ(e.message(), "[./BundleManifest.ini] not found.");
    }
    EXPECT_TRUE(log.HasError("resource file[" + path + "/BundleManifest.ini] does not exist."));
}

TEST_F(MakingABundle, PassesOnTheExceptionOfTheManifest)
{
    const std::string path = collection.Bundle("media").Manifest("[global]\nbundle_name = media\n").Write();
    EXPECT_THROW(factory->CreateBundle(path), Poco::NotFoundException);
    EXPECT_TRUE(log.HasError("parse bundle manifest fail."));
}
