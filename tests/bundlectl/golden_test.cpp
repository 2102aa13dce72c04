// The pictures that bundlectl makes of one log are those in the directory "golden". After a change that is meant:
//   BUNDLE_SERVER_RENEW_GOLDEN=1 ctest --preset dev -R AGoldenPicture
// writes them anew. Look at them, and commit them with the change.
#include "bundlectl/verb_test.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <string>
#include <vector>

namespace {

/// The output of bundlectl for the log, and the file's content.
std::string Picture(const std::vector<std::string>& options, const std::string& file)
{
    std::vector<std::string> arguments = {"timeline", "--log", GOLDEN "/start_up.log"};
    arguments.insert(arguments.end(), options.begin(), options.end());
    const Ended ended = RunToEnd(BUNDLECTL_PROGRAM, arguments);
    EXPECT_EQ(ended.status, 0) << ended.errors;
    const std::string path = GOLDEN "/" + file;
    if (std::getenv("BUNDLE_SERVER_RENEW_GOLDEN") != nullptr) {
        WriteFile(path, ended.output);
    }
    EXPECT_TRUE(ended.output == ReadFile(path)) << "it differs from " << path << ":\n" << ended.output;
    return ended.output;
}

} // namespace

TEST(AGoldenPicture, IsDrawnOfAStartUp)
{
    Picture({"--format", "svg"}, "start_up.svg");
}

TEST(AGoldenPicture, IsTheTraceOfAStartUpAndOfAllThatFollows)
{
    EXPECT_TRUE(FollowsSchema(Picture({"--format", "chrome-trace"}, "start_up.trace"), CHROME_TRACE_SCHEMA));
    const std::vector<std::string> window = {"--from", "2026-11-22T10:00:19Z", "--format", "chrome-trace"};
    EXPECT_TRUE(FollowsSchema(Picture(window, "window.trace"), CHROME_TRACE_SCHEMA));
}
