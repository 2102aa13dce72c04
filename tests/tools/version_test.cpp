#include "support/program.h"

#include <gtest/gtest.h>

#include <string>

namespace {

/// Expects one line: the program's name, the project's version, a commit, the framework's version.
void ExpectVersionLine(const char* program, const std::string& name)
{
    const Ended ended = RunToEnd(program, {"--version"});
    EXPECT_EQ(ended.status, 0);
    EXPECT_EQ(ended.errors, "");
    const std::string start = name + " " PROJECT_VERSION ", commit ";
    const std::string end = ", POCO " FRAMEWORK_VERSION "\n";
    ASSERT_GT(ended.output.size(), start.size() + end.size()) << ended.output;
    EXPECT_EQ(ended.output.substr(0, start.size()), start);
    EXPECT_EQ(ended.output.substr(ended.output.size() - end.size()), end);
    EXPECT_EQ(ended.output.find('\n'), ended.output.size() - 1) << ended.output;
}

} // namespace

TEST(Bundlectl, PrintsItsVersion)
{
    ExpectVersionLine(BUNDLECTL, "bundlectl");
}

TEST(TheLoader, PrintsItsVersion)
{
    ExpectVersionLine(LOADER, "dyn_lib_process_loader");
}

TEST(TheLoader, TakesNoArgumentBesideItsVersion)
{
    EXPECT_EQ(RunToEnd(LOADER, {"--version", "more"}).status, 64);
    EXPECT_EQ(RunToEnd(LOADER, {"-f", "library.so", "--version"}).status, 64);
}
