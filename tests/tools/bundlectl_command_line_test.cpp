#include "support/program.h"
#include "support/temporary_directory.h"

#include <gtest/gtest.h>

#include <filesystem>
#include <sstream>
#include <string>
#include <utility>
#include <vector>

namespace {

Ended Control(const std::vector<std::string>& arguments)
{
    return RunToEnd(BUNDLECTL, arguments);
}

} // namespace

TEST(Bundlectl, NamesAnUnknownCommandAndASimilarOne)
{
    for (const std::string meant : {"delete", "events", "wait"}) {
        std::string swapped = meant;
        std::swap(swapped[1], swapped[2]);
        for (const std::string& word :
             {meant.substr(0, meant.size() - 1), meant + 's', 'X' + meant.substr(1), swapped}) {
            std::ostringstream expected;
            expected << "bundlectl: there is no command \"" << word << "\". Did you mean \"" << meant << "\"?\n";
            const Ended ended = Control({word, "radio"});
            EXPECT_EQ(ended.errors, expected.str());
            EXPECT_EQ(ended.status, 2);
        }
    }
}

TEST(Bundlectl, NamesAllCommandsIfNoneIsSimilar)
{
    for (const char* const word : {"conquer", "wd", "x", ""}) {
        const std::string errors = Control({word}).errors;
        EXPECT_EQ(errors.rfind("bundlectl: there is no command \"" + std::string(word) +
                                   "\". The commands are: status, why, log, timeline, blame, delete, events, wait, ",
                               0),
                  0U)
            << errors;
        EXPECT_TRUE(Has(errors, ".\n"));
    }
    EXPECT_TRUE(Has(Control({"a\nb\x1B"}).errors, "\"a\\nb\\033\""));
}

TEST(Bundlectl, EndsWithTwoForWrongUsage)
{
    const std::vector<std::vector<std::string>> wrong{
        {},
        {"conquer"},
        {"delete"},
        {"delete", ""},
        {"delete", "one", "--timeout"},
        {"delete", "one", "--timeout", "0"},
        {"delete", "one", "--timeout", "-1"},
        {"delete", "one", "--timeout", "soon"},
        {"delete", "one", "--timeout", "1.5"},
        {"delete", "one", "--timeout", "86401"},
        {"delete", "one", "--timeout", "99999999999999999999"},
        {"delete", "one", "--timeout", "25h"},
        {"delete", "one", "--timeout", "5 m"},
        {"delete", "one", "--timeout", "h"},
        {"delete", "one", "--collection", "/dev/null"},
        {"delete", "one", "--config", "/dev"},
        {"delete", "one", "--collection", "/dev", "--config", "/dev/null"},
        {"delete", "one", "--gently"},
        {"events", "--count", "0"},
        {"events", "--count", "-3"},
        {"events", "--count", "many"},
        {"events", "extra"},
        {"wait"},
        {"wait", "--for", "godot"},
        {"wait", "--for", "serving", "--pid", "0"},
        {"wait", "serving"},
    };
    for (const auto& arguments : wrong) {
        const Ended ended = Control(arguments);
        EXPECT_EQ(ended.status, 2) << ::testing::PrintToString(arguments);
        EXPECT_EQ(ended.output, "");
        EXPECT_NE(ended.errors, "");
    }
}

TEST(Bundlectl, HelpsOnStandardOutput)
{
    for (const std::vector<std::string>& arguments :
         {std::vector<std::string>{"--help"}, {"delete", "--help"}, {"events", "--help"}, {"wait", "--help"}}) {
        const Ended ended = Control(arguments);
        EXPECT_EQ(ended.status, 0);
        EXPECT_EQ(ended.errors, "");
        EXPECT_TRUE(Has(ended.output, "exit status: 0 good")) << ended.output;
    }
}

TEST(Bundlectl, NamesThePackageOfAVerbThatIsNotInstalled)
{
    const TemporaryDirectory alone;
    std::filesystem::copy_file(BUNDLECTL, alone / "bundlectl");
    const std::pair<const char*, const char*> packages[] = {{"put", "bundlectl"},
                                                            {"rollback", "bundlectl"},
                                                            {"lint", "bundlectl-author"},
                                                            {"new", "bundlectl-author"},
                                                            {"drill", "bundlectl-author"}};
    for (const auto& [verb, package] : packages) {
        const Ended ended = RunToEnd(alone / "bundlectl", {verb, "x"});
        EXPECT_EQ(ended.status, 1);
        EXPECT_EQ(ended.errors, std::string("bundlectl: \"") + verb +
                                    "\" is not installed on this machine: install the package " + package + ".\n");
    }
}

TEST(Bundlectl, SuggestsAnotherMachineForAVerbThatIsNotInstalled)
{
    const TemporaryDirectory alone;
    std::filesystem::copy_file(BUNDLECTL, alone / "bundlectl");
    const Ended ended = RunToEnd(alone / "bundlectl", {"timeline"});
    EXPECT_EQ(ended.status, 1);
    EXPECT_EQ(ended.errors,
              "bundlectl: \"timeline\" is not installed on this machine: fetch the log, and read it with the package "
              "bundlectl of another machine and --log FILE.\n");
    EXPECT_EQ(RunToEnd(alone / "bundlectl", {"--help"}).status, 0);
}
