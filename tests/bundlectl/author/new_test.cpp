// bundlectl new. new_build_test.sh tests that its projects can be built.
#include "bundlectl/verb_test.h"
#include "support/files.h"
#include "support/program.h"
#include "support/temporary_directory.h"

#include <gtest/gtest.h>

#include <sys/stat.h>

#include <algorithm>
#include <filesystem>
#include <string>
#include <vector>

namespace {

namespace fs = std::filesystem;
using Names = std::vector<std::string>;

class ANewBundle : public ::testing::Test {
public:
    Ended Run(std::vector<std::string> arguments) const
    {
        arguments.insert(arguments.begin(), {"-C", m_root.Path(), BUNDLECTL_PROGRAM, "new"});
        return RunToEnd("/usr/bin/env", std::move(arguments));
    }

    /// Runs it in a shell, after other commands.
    Ended RunAfter(const std::string& commands, const std::string& name) const
    {
        return RunToEnd("/bin/sh", {"-c", "cd " + m_root.Path().string() + "\n" + commands +
                                              "\nexec " BUNDLECTL_PROGRAM " new " + name});
    }

    /// All entries of the directory where it ran.
    Names All() const
    {
        Names names;
        for (const auto& entry : fs::recursive_directory_iterator(m_root.Path())) {
            names.push_back(fs::relative(entry.path(), m_root.Path()));
        }
        std::sort(names.begin(), names.end());
        return names;
    }

    std::string At(const std::string& path) const { return m_root / path; }
    unsigned ModeOf(const std::string& path) const
    {
        struct stat status {};
        EXPECT_EQ(::stat(At(path).c_str(), &status), 0) << path;
        return status.st_mode & 07777U;
    }

private:
    TemporaryDirectory m_root;
};

} // namespace

TEST_F(ANewBundle, IsACMakeProject)
{
    const Ended ended = Run({"radio", "--requires", "base, net"});
    ASSERT_EQ(ended.status, 0) << ended.errors;
    EXPECT_TRUE(Tells(ended, "Next: cd radio && cmake --preset native"));
    EXPECT_EQ(All(), (Names{"radio", "radio/.gitignore", "radio/CMakeLists.txt", "radio/CMakePresets.json",
                            "radio/README.md", "radio/bundle", "radio/bundle/BundleManifest.ini", "radio/bundle/script",
                            "radio/bundle/script/install.sh", "radio/bundle/script/uninstall.sh",
                            "radio/bundle/script/update.sh", "radio/cmake", "radio/cmake/armhf.cmake", "radio/src",
                            "radio/src/radio.cpp"}));
    const std::string manifest = ReadFile(At("radio/bundle/BundleManifest.ini"));
    EXPECT_TRUE(Has(manifest, "bundle_name = radio\n")) << manifest;
    EXPECT_TRUE(Has(manifest, "bundle_load_mode = 0\n")) << manifest;
    EXPECT_TRUE(Has(manifest, "bundle_dependencies = base, net\n")) << manifest;
    EXPECT_EQ(ModeOf("radio/bundle/script/install.sh"), 0755U);
}

TEST_F(ANewBundle, HasNoWordLeftToFillIn)
{
    for (const Names& options : {Names{"a-program"}, Names{"a-script", "--lang", "sh"},
                                 Names{"a-library", "--lang", "so"}, Names{"a-thread", "--mode", "thread"}}) {
        ASSERT_EQ(Run(options).status, 0);
    }
    for (const std::string& name : All()) {
        const std::string text = fs::is_regular_file(At(name)) ? ReadFile(At(name)) : "";
        for (const char* const word : {"@NAME@", "@ITEM", "@MODE@", "@ENTRY@", "@REQUIRES@", "@HEAD@", "@SOURCE@",
                                       "@KIND@", "@LANGUAGES@", "@COMPILER@", "@BUILD_ITEM@", "@COPY_ITEM@"}) {
            EXPECT_FALSE(Has(text, word)) << name << " has " << word;
        }
    }
    EXPECT_TRUE(Has(ReadFile(At("a-thread/bundle/BundleManifest.ini")), "bundle_load_mode = 1\n"));
}

TEST_F(ANewBundle, OverwritesNothing)
{
    WriteFile(At("file"), "mine");
    fs::create_directory(At("empty"));
    fs::create_symlink("nowhere", At("link"));
    const Names before = All();
    for (const char* const name : {"file", "empty", "link"}) {
        const Ended ended = Run({name});
        EXPECT_EQ(ended.status, 1) << name;
        EXPECT_TRUE(Has(ended.errors, std::string(name) + " exists already, and is left as it is.")) << ended.errors;
    }
    EXPECT_EQ(All(), before);
    EXPECT_EQ(ReadFile(At("file")), "mine");
}

TEST_F(ANewBundle, LeavesNothingWhenTheDiskTakesNoMore)
{
    // The first files fit onto the disk, a later one does not.
    const Ended ended = RunAfter("trap '' XFSZ; ulimit -f 2", "radio");
    EXPECT_EQ(ended.status, 1);
    EXPECT_TRUE(Has(ended.errors, "File too large")) << ended.errors;
    EXPECT_EQ(All(), Names{});
}

TEST_F(ANewBundle, HasANameThatLintFindsGood)
{
    const Ended brief = Run({"tv"});
    EXPECT_EQ(brief.status, 1);
    EXPECT_TRUE(Has(brief.errors, "item-name-short")) << brief.errors;
    EXPECT_TRUE(Has(Run({std::string(128, 'x')}).errors, "name-not-deletable"));
    EXPECT_EQ(All(), Names{});
    EXPECT_EQ(Run({std::string(127, 'x')}).status, 0);
}

TEST_F(ANewBundle, HasANameThatAFileAndAProjectCarry)
{
    for (const char* const name :
         {"..", "../radio", "a/b", "ra dio", "radio\n", "${x}", "a;b", "a\"b", "@NAME@", "ä"}) {
        EXPECT_EQ(Run({"--", name}).status, 1) << name;
        EXPECT_EQ(Run({"radio", std::string("--requires=") + name}).status, 1) << name;
    }
    EXPECT_EQ(Run({"--", "-radio"}).status, 1);
    EXPECT_EQ(Run({""}).status, 1);
    EXPECT_EQ(Run({"a,b"}).status, 1);
    EXPECT_EQ(Run({"radio", "--requires", "base,,net"}).status, 1);
    EXPECT_TRUE(Has(Run({"radio", "--requires", "radio"}).errors, "\"radio\" cannot require itself"));
    EXPECT_EQ(All(), Names{});
}

TEST_F(ANewBundle, RunsOnAThreadAsALibraryOnly)
{
    EXPECT_EQ(Run({"radio", "--mode", "thread", "--lang", "cpp"}).status, 2);
    EXPECT_EQ(Run({"radio", "--mode", "thread", "--lang", "sh"}).status, 2);
    EXPECT_EQ(Run({"radio", "--lang", "abacus"}).status, 2);
    EXPECT_EQ(All(), Names{});
    EXPECT_EQ(Run({"radio", "--mode", "thread", "--lang", "so"}).status, 0);
}

TEST_F(ANewBundle, BelongsToTheUserAsTheMaskSays)
{
    ASSERT_EQ(RunAfter("umask 077", "radio").status, 0);
    EXPECT_EQ(ModeOf("radio"), 0700U);
    EXPECT_EQ(ModeOf("radio/bundle/script/install.sh"), 0700U);
    ASSERT_EQ(RunAfter("umask 0", "tuner").status, 0);
    EXPECT_EQ(ModeOf("tuner"), 0755U) << "lint would warn of files that others may write";
    EXPECT_EQ(ModeOf("tuner/CMakeLists.txt"), 0644U);
}

TEST_F(ANewBundle, IsToldToPrograms)
{
    const Ended made = Run({"radio", "--json"});
    EXPECT_TRUE(FollowsSchema(made.output));
    EXPECT_TRUE(Tells(made, R"("outcome":"made")"));
    const Ended refused = Run({"radio", "--json"});
    EXPECT_TRUE(FollowsSchema(refused.output));
    EXPECT_TRUE(Tells(refused, R"("outcome":"refused")"));
    EXPECT_EQ(refused.status, 1);
}
