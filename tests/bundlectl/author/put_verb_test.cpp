// bundlectl put and the related verbs, without a server.
#include "bundlectl/verb_test.h"
#include "support/shell.h"

#include <gtest/gtest.h>

#include <sys/file.h>
#include <sys/stat.h>

#include <fcntl.h>

#include <filesystem>
#include <string>
#include <vector>

namespace {

namespace fs = std::filesystem;

/// A collection in a directory of its own, so that everything beside it belongs to the test.
class PutVerb : public ::testing::Test {
public:
    PutVerb() { fs::create_directory(Bundles()); }

    std::string Bundles() const { return m_root / "bundles"; }
    std::string At(const std::string& path) const { return Bundles() + "/" + path; }
    std::string Store() const { return m_root / ".bundles.bundlectl"; }
    std::string File(const std::string& name) const { return m_root / name; }

    Ended Run(std::vector<std::string> arguments) const
    {
        arguments.insert(arguments.end(), {"--collection", Bundles()});
        return RunToEnd(BUNDLECTL_PROGRAM, std::move(arguments));
    }

    static Ended RunPlain(std::vector<std::string> arguments)
    {
        return RunToEnd(BUNDLECTL_PROGRAM, std::move(arguments));
    }

    /// A version of the bundle "radio". The text of its item shows which one.
    std::string Version(const std::string& text) const
    {
        fs::remove_all(source / "radio");
        return source.Bundle("radio").Item("tunerd", "#!/bin/sh\n# " + text + "\n").Write();
    }

    std::string Present() const { return ReadFile(At("radio/bin/tunerd")); }
    bool IsPresent(const std::string& text) const { return Has(Present(), "# " + text + "\n"); }

    /// The names below the store's versions of "radio".
    std::vector<std::string> Kept() const
    {
        std::vector<std::string> names;
        for (const auto& entry : fs::directory_iterator(Store() + "/versions/radio")) {
            names.push_back(entry.path().filename());
        }
        std::sort(names.begin(), names.end());
        return names;
    }

    CollectionBuilder source;

private:
    TemporaryDirectory m_root;
};

using Names = std::vector<std::string>;

} // namespace

TEST_F(PutVerb, InstallsADirectory)
{
    const Ended ended = Run({"put", Version("one")});
    EXPECT_EQ(ended.status, 0) << ended.errors;
    EXPECT_TRUE(Tells(ended, "version 1 of \"radio\" is in place. No server runs; its next start starts it."));
    EXPECT_TRUE(IsPresent("one"));
    struct stat status {};
    ASSERT_EQ(::stat(At("radio").c_str(), &status), 0);
    EXPECT_EQ(status.st_mode & 0777U, 0755U);
    EXPECT_EQ(Kept(), Names{});
}

TEST_F(PutVerb, UpdatesAndGoesBackAndForth)
{
    Run({"put", Version("one")});
    EXPECT_EQ(Run({"put", Version("two")}).status, 0);
    EXPECT_EQ(Run({"put", Version("three")}).status, 0);
    EXPECT_TRUE(IsPresent("three"));
    EXPECT_EQ(Kept(), (Names{"1", "2"}));
    const Ended back = Run({"rollback", "radio"});
    EXPECT_EQ(back.status, 0) << back.errors;
    EXPECT_TRUE(Tells(back, "version 2 of \"radio\" is in place."));
    EXPECT_TRUE(IsPresent("two"));
    EXPECT_EQ(Kept(), (Names{"1", "3"}));
    EXPECT_EQ(Run({"rollback", "radio", "--to", "3"}).status, 0);
    EXPECT_TRUE(IsPresent("three"));
    EXPECT_EQ(Run({"rollback", "radio", "--to", "7"}).status, 1);
    const Ended versions = Run({"versions", "radio"});
    EXPECT_EQ(versions.status, 0);
    EXPECT_TRUE(Tells(versions, "3        yes"));
    EXPECT_TRUE(FollowsSchema(Run({"versions", "radio", "--json"}).output));
    EXPECT_EQ(Run({"versions", "tv"}).status, 3);
}

TEST_F(PutVerb, KeepsSoManyVersions)
{
    for (const char* const text : {"one", "two", "three", "four"}) {
        EXPECT_EQ(Run({"put", Version(text), "--keep", "2"}).status, 0);
    }
    EXPECT_EQ(Kept(), (Names{"2", "3"}));
    EXPECT_EQ(Run({"put", Version("five"), "--keep", "0"}).status, 0);
    EXPECT_EQ(Kept(), Names{});
}

TEST_F(PutVerb, TakesABundleInThatWasCopiedThereByHand)
{
    fs::copy(Version("old"), At("radio-dir"), fs::copy_options::recursive);
    EXPECT_EQ(Run({"put", Version("new")}).status, 0);
    EXPECT_TRUE(Has(ReadFile(At("radio-dir/bin/tunerd")), "# new\n")) << "the directory stays what it is called";
    EXPECT_FALSE(Exists(At("radio")));
    const Ended back = Run({"rollback", "radio"});
    EXPECT_EQ(back.status, 0) << back.errors;
    EXPECT_TRUE(Has(ReadFile(At("radio-dir/bin/tunerd")), "# old\n"));
}

TEST_F(PutVerb, CarriesWhatTheItemsHaveWritten)
{
    fs::create_directories(fs::path(Version("one")) / "data");
    WriteFile(source / "radio/data/settings", "shipped");
    WriteFile(source / "radio/data/stations", "shipped");
    ASSERT_EQ(RunPlain({"pack", source / "radio", "-o", File("one.tar.gz")}).status, 0);
    ASSERT_EQ(Run({"put", File("one.tar.gz")}).status, 0);
    WriteFile(At("radio/data/stations"), "mine");
    WriteFile(At("radio/data/log"), "grown");
    fs::create_directories(fs::path(Version("two")) / "data");
    WriteFile(source / "radio/data/settings", "newer");
    WriteFile(source / "radio/data/stations", "newer");
    ASSERT_EQ(Run({"put", source / "radio"}).status, 0);
    EXPECT_TRUE(IsPresent("two"));
    EXPECT_EQ(ReadFile(At("radio/data/settings")), "newer") << "what was never changed follows the version";
    EXPECT_EQ(ReadFile(At("radio/data/stations")), "mine");
    EXPECT_EQ(ReadFile(At("radio/data/log")), "grown");
}

TEST_F(PutVerb, PacksAndChecksASignature)
{
    ASSERT_EQ(RunPlain({"keygen", File("vendor")}).status, 0);
    EXPECT_EQ(RunPlain({"keygen", File("vendor")}).status, 1) << "keys are not overwritten";
    struct stat status {};
    ASSERT_EQ(::stat(File("vendor.key").c_str(), &status), 0);
    EXPECT_EQ(status.st_mode & 0777U, 0600U);
    ASSERT_EQ(RunPlain({"pack", Version("one"), "-o", File("a.tar.gz"), "--key", File("vendor.key")}).status, 0);
    ASSERT_EQ(RunPlain({"pack", Version("one"), "-o", File("plain.tar.gz")}).status, 0);
    const Ended good = RunPlain({"verify", File("a.tar.gz"), "--key", File("vendor.pub")});
    EXPECT_EQ(good.status, 0) << good.errors;
    EXPECT_TRUE(Tells(good, "is what was shipped, and its signature is good."));
    EXPECT_EQ(RunPlain({"verify", File("plain.tar.gz"), "--key", File("vendor.pub")}).status, 1);
    EXPECT_EQ(Run({"put", File("plain.tar.gz"), "--key", File("vendor.pub")}).status, 1);
    EXPECT_EQ(Run({"put", Version("one"), "--key", File("vendor.pub")}).status, 1);
    EXPECT_FALSE(Exists(At("radio")));
    EXPECT_EQ(Run({"put", File("a.tar.gz"), "--key", File("vendor.pub")}).status, 0);
    EXPECT_EQ(RunPlain({"verify", At("radio"), "--key", File("vendor.pub")}).status, 0);
    WriteFile(At("radio/bin/tunerd"), "#!/bin/sh\n");
    const Ended bad = RunPlain({"verify", At("radio"), "--key", File("vendor.pub"), "--json"});
    EXPECT_EQ(bad.status, 1);
    EXPECT_TRUE(Tells(bad, "bin/tunerd differs from what was shipped."));
    EXPECT_TRUE(FollowsSchema(bad.output));
}

TEST_F(PutVerb, RefusesWithNothingChanged)
{
    ASSERT_EQ(Run({"put", Version("one")}).status, 0);
    ASSERT_EQ(RunPlain({"pack", Version("two"), "-o", File("a.tar.gz")}).status, 0);
    const std::string whole = ReadFile(File("a.tar.gz"));
    WriteFile(File("a.tar.gz"), whole.substr(0, whole.size() / 2));
    const Ended cut = Run({"put", File("a.tar.gz")});
    EXPECT_EQ(cut.status, 1);
    EXPECT_TRUE(Has(cut.errors, "truncated gzip input")) << cut.errors;
    source.Bundle("radio").Item("tunerd").Write();
    fs::remove(source / "radio/bin/tunerd");
    const Ended linted = Run({"put", source / "radio"});
    EXPECT_EQ(linted.status, 1);
    EXPECT_TRUE(Has(linted.errors, "BundleManifest.ini:5: an item's file is missing.")) << linted.errors;
    EXPECT_TRUE(Has(linted.errors, "--force")) << linted.errors;
    EXPECT_TRUE(IsPresent("one"));
    EXPECT_EQ(Kept(), Names{});
    EXPECT_FALSE(Exists(Store() + "/unpacked"));
    EXPECT_EQ(Run({"put", source / "radio", "--force"}).status, 0);
}

TEST_F(PutVerb, RefusesABundleWhoseRequirementIsNotThere)
{
    source.Bundle("radio").Requires("tuner").Write();
    const Ended refused = Run({"put", source / "radio"});
    EXPECT_EQ(refused.status, 1);
    EXPECT_EQ(refused.errors, "  BundleManifest.ini:4: a required bundle is missing. There is no bundle \"tuner\". Put "
                              "the required bundle into the collection, or correct bundle_dependencies.\n"
                              "bundlectl: the bundle would not run here. --force puts it all the same.\n");
    const Ended json = Run({"put", source / "radio", "--json"});
    EXPECT_EQ(json.status, 1);
    EXPECT_TRUE(FollowsSchema(json.output));
    EXPECT_TRUE(Tells(json, "\"details\":[\"BundleManifest.ini:4: "));
    source.Bundle("tuner").Write();
    EXPECT_EQ(Run({"put", source / "tuner"}).status, 0);
    EXPECT_EQ(Run({"put", source / "radio"}).status, 0);
}

TEST_F(PutVerb, RefusesToReplaceAnotherBundleOrToChangeTheMode)
{
    ASSERT_EQ(Run({"put", Version("one")}).status, 0);
    source.BundleIn("other").Name("tv").Write();
    const Ended taken = Run({"put", source / "other", "--directory", "radio"});
    EXPECT_EQ(taken.status, 1);
    EXPECT_TRUE(Has(taken.errors, "cannot change a bundle's name")) << taken.errors;
    EXPECT_EQ(Run({"put", source / "other", "--directory", "../tv"}).status, 1);
    fs::remove_all(source / "radio");
    source.Bundle("radio").ThreadMode().Library("tuner.so", "ReturnZero", TEST_LIBRARY).Write();
    const Ended mode = Run({"put", source / "radio"});
    EXPECT_EQ(mode.status, 1);
    EXPECT_TRUE(Has(mode.errors, "bundlectl remove radio")) << mode.errors;
    EXPECT_TRUE(IsPresent("one"));
}

TEST_F(PutVerb, WaitsForAnotherOneAndSaysWhoItIs)
{
    ASSERT_EQ(Run({"put", Version("one")}).status, 0);
    const int fd = ::open((Store() + "/lock").c_str(), O_RDWR | O_CLOEXEC);
    ASSERT_EQ(::flock(fd, LOCK_EX), 0);
    WriteFile(Store() + "/lock", "process 7, put tv");
    const Ended busy = Run({"put", Version("two"), "--wait", "300ms"});
    EXPECT_EQ(busy.status, 5);
    EXPECT_TRUE(Has(busy.errors, "another one is at it: process 7, put tv.")) << busy.errors;
    EXPECT_TRUE(IsPresent("one"));
    Program waiting({BUNDLECTL_PROGRAM, "put", source / "radio", "--collection", Bundles()});
    ASSERT_TRUE(Eventually(std::chrono::seconds(20), [&] { return Has(waiting.Errors(), "waiting for another one"); }));
    ::close(fd);
    EXPECT_EQ(waiting.Wait(), 0) << waiting.Errors();
    EXPECT_TRUE(IsPresent("two"));
}

TEST_F(PutVerb, RemovesFromTheDirectoryAndBringsBack)
{
    ASSERT_EQ(Run({"put", Version("one")}).status, 0);
    source.Bundle("page").Requires("radio").Write();
    ASSERT_EQ(Run({"put", source / "page"}).status, 0);
    const Ended refused = Run({"remove", "radio"});
    EXPECT_EQ(refused.status, 1);
    EXPECT_TRUE(Has(refused.errors, "is required by page")) << refused.errors;
    EXPECT_TRUE(IsPresent("one"));
    const Ended removed = Run({"remove", "radio", "--force", "--json"});
    EXPECT_EQ(removed.status, 0) << removed.output;
    EXPECT_TRUE(FollowsSchema(removed.output));
    EXPECT_FALSE(Exists(At("radio")));
    EXPECT_EQ(Run({"remove", "radio"}).status, 3);
    const Ended mistyped = Run({"remove", "pag"});
    EXPECT_EQ(mistyped.status, 3);
    EXPECT_TRUE(Has(mistyped.errors, "Did you mean \"page\"?")) << mistyped.errors;
    EXPECT_EQ(Run({"rollback", "radio"}).status, 0);
    EXPECT_TRUE(IsPresent("one"));
}

TEST_F(PutVerb, ListsVersionsWithoutWriting)
{
    ASSERT_EQ(Run({"put", Version("one")}).status, 0);
    ASSERT_EQ(Run({"put", Version("two")}).status, 0);
    const Ended listed = Run({"versions", "radio"});
    EXPECT_EQ(listed.status, 0);
    EXPECT_TRUE(Tells(listed, " ago ")) << "times are for people";
    EXPECT_FALSE(Has(listed.output, "Z "));
    const Ended json = Run({"versions", "radio", "--json"});
    EXPECT_TRUE(FollowsSchema(json.output));
    EXPECT_TRUE(Tells(json, "\"number\":1,\"in_force\":false"));
    const Ended mistyped = Run({"versions", "rado"});
    EXPECT_EQ(mistyped.status, 3);
    EXPECT_TRUE(Has(mistyped.errors, "Did you mean \"radio\"?")) << mistyped.errors;

    // A collection in which nothing was ever put, and beside which this user may write nothing.
    const TemporaryDirectory other;
    fs::create_directory(other / "bundles");
    fs::copy(At("radio"), other / "bundles/radio", fs::copy_options::recursive);
    const Ended present = RunPlain({"versions", "radio", "--collection", other / "bundles"});
    EXPECT_EQ(present.status, 0) << present.errors;
    EXPECT_TRUE(Tells(present, "2        yes"));
    EXPECT_FALSE(Exists(other / ".bundles.bundlectl"));
}

TEST_F(PutVerb, SaysWhoMayDoIt)
{
    ASSERT_EQ(Run({"put", Version("one")}).status, 0);
    ASSERT_EQ(Run({"put", Version("two")}).status, 0);
    if (::geteuid() != 0) {
        GTEST_SKIP() << "only root becomes another user";
    }
    fs::permissions(fs::path(Bundles()).parent_path(), fs::perms(0755));
    RunShell("chmod -R a+rX " + Bundles() + " " + source.Path());
    const auto asOther = [this](std::vector<std::string> arguments) {
        arguments.insert(arguments.begin(), {"--reuid=65534", "--regid=65534", "--clear-groups", BUNDLECTL_PROGRAM});
        arguments.insert(arguments.end(), {"--collection", Bundles()});
        return RunToEnd("/usr/bin/setpriv", arguments);
    };
    if (RunToEnd("/usr/bin/setpriv",
                 {"--reuid=65534", "--regid=65534", "--clear-groups", BUNDLECTL_PROGRAM, "--version"})
            .status != 0) {
        GTEST_SKIP() << "other users may not read the build directory";
    }
    const Ended listed = asOther({"versions", "radio"});
    EXPECT_EQ(listed.status, 0) << listed.errors;
    EXPECT_TRUE(Tells(listed, "2        yes"));
    EXPECT_TRUE(Has(listed.errors, "the kept versions in ")) << listed.errors;
    const Ended put = asOther({"put", source / "radio"});
    EXPECT_EQ(put.status, 1);
    EXPECT_TRUE(Has(put.errors, "Run it as root, or as the user to whom the collection belongs.")) << put.errors;
}

TEST_F(PutVerb, WantsACollectionThatIsAFolder)
{
    const Ended ended = RunPlain({"put", Version("one"), "--collection", "/proc"});
    EXPECT_EQ(ended.status, 1);
    EXPECT_TRUE(Has(ended.errors, "is a mount point")) << ended.errors;
    EXPECT_EQ(RunPlain({"put", Version("one"), "--collection", File("nowhere")}).status, 1);
}
