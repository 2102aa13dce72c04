#include "bundle_storage_dir.h"

#include "support/collection_builder.h"
#include "support/log_capture.h"

#include <Poco/Exception.h>

#include <gtest/gtest.h>

#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>
#include <memory>
#include <sstream>
#include <string>

using SystemServer::BundleStorageDir;

namespace {

std::string AbsPath(const std::string& root, const std::string& relative)
{
    return BundleStorageDir(root).GetResourceAbsPath(relative).toString();
}

std::string Refusal(const std::string& relative)
{
    try {
        AbsPath("/data/bundles/b1", relative);
    } catch (const Poco::InvalidArgumentException& e) {
        return e.message();
    }
    return "";
}

class OpeningAFile : public ::testing::Test {
public:
    std::string Content(const std::string& relative) const
    {
        const std::unique_ptr<std::istream> stream(storage.GetResourceFile(relative));
        std::ostringstream content;
        if (stream) {
            content << stream->rdbuf();
        }
        return content.str();
    }

    TemporaryDirectory directory;
    BundleStorageDir storage{directory.Path().string()};
    LogCapture log;
};

} // namespace

TEST(TheStoragesRoot, IsKeptAsGiven)
{
    EXPECT_EQ(BundleStorageDir("/data/bundles/b1").GetRootPath(), "/data/bundles/b1");
    EXPECT_EQ(BundleStorageDir("/data/bundles/b1/").GetRootPath(), "/data/bundles/b1/");
    EXPECT_EQ(BundleStorageDir("b1/../b1/./").GetRootPath(), "b1/../b1/./");
}

TEST(ThePathOfAResource, IsBelowTheRoot)
{
    EXPECT_EQ(AbsPath("/data/bundles/b1", "./BundleManifest.ini"), "/data/bundles/b1/BundleManifest.ini");
    EXPECT_EQ(AbsPath("/data/bundles/b1", "./bin/app"), "/data/bundles/b1/bin/app");
    EXPECT_EQ(AbsPath("/data/bundles/b1", "a/./b/c/file"), "/data/bundles/b1/a/b/c/file");
}

TEST(ThePathOfAResource, IsTheSameWithAndWithoutALeadingDot)
{
    EXPECT_EQ(AbsPath("/data/bundles/b1", "bin/app"), AbsPath("/data/bundles/b1", "./bin/app"));
}

TEST(ThePathOfAResource, IsTheSameWithAndWithoutATrailingSlashOfTheRoot)
{
    EXPECT_EQ(AbsPath("/data/bundles/b1/", "bin/app"), AbsPath("/data/bundles/b1", "bin/app"));
}

TEST(ThePathOfAResource, IsRefusedWhenEmpty)
{
    EXPECT_EQ(Refusal(""), "relativePath is empty.");
}

TEST(ThePathOfAResource, IsRefusedWhenAbsolute)
{
    EXPECT_EQ(Refusal("/etc/passwd"), "Path is not relative path.");
    EXPECT_EQ(Refusal("/"), "Path is not relative path.");
    EXPECT_EQ(Refusal("/../x"), "Path is not relative path.");
}

TEST(ThePathOfAResource, IsRefusedWithTwoDotsAnywhere)
{
    for (const char* const path : {"bin/../app", "..hidden", "../x", "a..b", "bin/..", "../"}) {
        EXPECT_EQ(Refusal(path), "Path must not contain '..'") << path;
    }
}

TEST(ThePathOfAResource, IsRefusedWhenItNamesADirectory)
{
    EXPECT_EQ(Refusal("./"), "Path must contain file");
    EXPECT_EQ(Refusal("bin/"), "Path must contain file");
}

TEST(ThePathOfAResource, HasTheFrameworksPrefixInItsErrorText)
{
    try {
        AbsPath("/data/bundles/b1", "");
        FAIL() << "the empty path was accepted";
    } catch (const Poco::InvalidArgumentException& e) {
        EXPECT_EQ(e.displayText(), "Invalid argument: relativePath is empty.");
    }
}

TEST_F(OpeningAFile, OpensItsContent)
{
    WriteFile(directory / "BundleManifest.ini", "line one\nline two\n");
    EXPECT_EQ(Content("./BundleManifest.ini"), "line one\nline two\n");
    EXPECT_TRUE(log.Messages().empty());
}

TEST_F(OpeningAFile, OpensItAgainEachTime)
{
    WriteFile(directory / "file", "content");
    EXPECT_EQ(Content("file"), "content");
    EXPECT_EQ(Content("file"), "content");
}

TEST_F(OpeningAFile, GivesNothingForAMissingFile)
{
    EXPECT_EQ(storage.GetResourceFile("./bin/app"), nullptr);
    EXPECT_TRUE(log.HasError("resource file[" + directory.Path().string() + "/bin/app] does not exist."));
}

TEST_F(OpeningAFile, GivesNothingForADirectory)
{
    std::filesystem::create_directory(directory.Path() / "bin");
    EXPECT_EQ(storage.GetResourceFile("bin"), nullptr);
    EXPECT_TRUE(log.HasError("[" + directory.Path().string() + "/bin] is directory."));
}

TEST_F(OpeningAFile, PassesOnTheRefusalOfThePath)
{
    EXPECT_THROW(storage.GetResourceFile("../x"), Poco::InvalidArgumentException);
    EXPECT_TRUE(log.Messages().empty());
}

TEST_F(OpeningAFile, RefusesAFifoWithoutWaitingForItsWriter)
{
    const std::string fifo = directory / "fifo";
    ASSERT_EQ(::mkfifo(fifo.c_str(), 0600), 0);
    EXPECT_THROW(storage.GetResourceFile("fifo"), Poco::FileException);
}

TEST_F(OpeningAFile, ThrowsWithoutThePermissionToRead)
{
    constexpr uid_t nobody = 65534;
    WriteFile(directory / "secret", "content");
    ASSERT_EQ(::chmod((directory / "secret").c_str(), 0), 0);
    ASSERT_EQ(::chmod(directory.Path().c_str(), 0755), 0);
    const bool isRoot = ::geteuid() == 0; // root can read every file
    ASSERT_TRUE(!isRoot || ::seteuid(nobody) == 0);
    EXPECT_THROW(storage.GetResourceFile("secret"), Poco::FileException);
    ASSERT_TRUE(!isRoot || ::seteuid(0) == 0);
}
