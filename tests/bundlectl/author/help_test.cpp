// The help of bundlectl and of all its verbs.
#include "bundlectl/verb_test.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstddef>
#include <sstream>
#include <string>

namespace {

std::size_t LongestLine(const std::string& text)
{
    std::istringstream lines(text);
    std::size_t most = 0;
    for (std::string line; std::getline(lines, line);) {
        most = std::max(most, line.size());
    }
    return most;
}

} // namespace

TEST(TheHelp, NeedsEightyColumns)
{
    const std::string all = RunToEnd(BUNDLECTL_PROGRAM, {"--help"}).output;
    EXPECT_LE(LongestLine(all), 80U) << all;
    EXPECT_TRUE(Has(all, "\n    4 server or log") || Has(all, "; 4 server")) << "the statuses are all there: " << all;
    std::istringstream lines(all.substr(all.find("Commands:\n") + 10));
    int verbs = 0;
    for (std::string line; std::getline(lines, line) && !line.empty();) {
        const std::string verb = line.substr(2, line.find(' ', 2) - 2);
        if (verb.empty()) {
            continue; // the description goes on
        }
        const Ended ended = RunToEnd(BUNDLECTL_PROGRAM, {verb, "--help"});
        EXPECT_EQ(ended.status, 0) << verb << ended.errors;
        EXPECT_LE(LongestLine(ended.output), 80U) << ended.output;
        EXPECT_TRUE(Has(ended.output, "examples:\n  bundlectl " + verb)) << ended.output;
        ++verbs;
    }
    EXPECT_GT(verbs, 20);
}
