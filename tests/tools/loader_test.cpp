#include "support/program.h"

#include <gtest/gtest.h>

#include <fstream>
#include <string>
#include <vector>

namespace {

Ended Load(const std::vector<std::string>& arguments)
{
    return RunToEnd(LOADER, arguments);
}

} // namespace

TEST(TheLoader, ExitsWithTheResultOfTheFunction)
{
    const Ended zero = Load({"-f", LIBRARY, "-e", "ReturnZero"});
    EXPECT_EQ(zero.status, 0);
    EXPECT_EQ(zero.output + zero.errors, "");
    EXPECT_EQ(Load({"-f", LIBRARY, "-e", "ReturnSeven"}).status, 7);
    EXPECT_EQ(Load({"-e", "ReturnSeven", "-f", LIBRARY}).status, 7);
    EXPECT_EQ(Load({"-f", LIBRARY, "-e", "ReturnMinusOne"}).status, 255);
    EXPECT_EQ(Load({"-f", LIBRARY, "-e", "ExitWithNine"}).status, 9);
}

TEST(TheLoader, LetsTheFunctionPrint)
{
    const Ended ended = Load({"-f", LIBRARY, "-e", "PrintOneLine"});
    EXPECT_EQ(ended.status, 0);
    EXPECT_EQ(ended.output, "from the library\n");
}

TEST(TheLoader, IgnoresAMissingFunctionThatIsNotCalled)
{
    EXPECT_EQ(Load({"-f", LIBRARY, "-e", "ReturnZero"}).status, 0);
    const Ended ended = Load({"-f", LIBRARY, "-e", "CallWhatNobodyHas"});
    EXPECT_EQ(ended.status, 127);
    EXPECT_TRUE(Has(ended.errors, "WhatNobodyHas")) << ended.errors;
}

TEST(TheLoader, NamesTheLibraryThatDoesNotOpen)
{
    const Ended ended = Load({"-f", "/nowhere/libx.so", "-e", "Run"});
    EXPECT_EQ(ended.status, 1);
    EXPECT_EQ(ended.output, "");
    EXPECT_TRUE(Has(ended.errors, "function Run of library /nowhere/libx.so cannot be called: ")) << ended.errors;
    EXPECT_TRUE(Has(ended.errors, "No such file or directory")) << ended.errors;
}

TEST(TheLoader, NamesTheFileThatIsNoLibrary)
{
    const TemporaryDirectory directory;
    const std::string path = directory / "text.so";
    std::ofstream(path) << "no library";
    const Ended ended = Load({"-f", path, "-e", "Run"});
    EXPECT_EQ(ended.status, 1);
    EXPECT_TRUE(Has(ended.errors, path)) << ended.errors;
}

TEST(TheLoader, NamesTheFunctionThatTheLibraryLacks)
{
    const Ended ended = Load({"-f", LIBRARY, "-e", "Missing"});
    EXPECT_EQ(ended.status, 1);
    EXPECT_TRUE(Has(ended.errors, std::string("function Missing of library ") + LIBRARY)) << ended.errors;
    EXPECT_TRUE(Has(ended.errors, "undefined symbol")) << ended.errors;
}

TEST(TheLoader, ShowsItsUsageOnStandardErrorForWrongUsage)
{
    const std::vector<std::vector<std::string>> wrong{
        {},
        {"-f", LIBRARY},
        {"-e", "ReturnZero"},
        {"-f", LIBRARY, "-e"},
        {"-f", LIBRARY, "-e", ""},
        {"-f", "", "-e", "ReturnZero"},
        {"-x"},
        {"-f", LIBRARY, "-e", "ReturnZero", "extra"},
        {"-f", LIBRARY, "-e", "ReturnZero", "-x"},
    };
    for (const auto& arguments : wrong) {
        const Ended ended = Load(arguments);
        EXPECT_EQ(ended.status, 64) << ended.errors;
        EXPECT_EQ(ended.output, "");
        EXPECT_TRUE(Has(ended.errors, "usage: dyn_lib_process_loader -f LIBRARY -e FUNCTION\n")) << ended.errors;
    }
}

TEST(TheLoader, ShowsItsUsageOnStandardOutputWhenItIsAsked)
{
    const Ended ended = Load({"-h"});
    EXPECT_EQ(ended.status, 0);
    EXPECT_EQ(ended.errors, "");
    EXPECT_EQ(ended.output.rfind("usage: dyn_lib_process_loader -f LIBRARY -e FUNCTION\n", 0), 0U);
}
