#include <sprintf_s.h>

#include <gtest/gtest.h>

#include <cstring>
#include <string>

TEST(SprintfS, ReturnsTheLengthOfItsText)
{
    char text[16];
    EXPECT_EQ(sprintf_s(text, sizeof text, "%s", "app.event.init"), 14);
    EXPECT_STREQ(text, "app.event.init");
    EXPECT_EQ(sprintf_s(text, sizeof text, "%s-%d", "a", 42), 4);
    EXPECT_STREQ(text, "a-42");
}

TEST(SprintfS, FillsItsFieldUpToTheNul)
{
    char text[16];
    EXPECT_EQ(sprintf_s(text, sizeof text, "%s", "123456789012345"), 15);
    EXPECT_STREQ(text, "123456789012345");
}

TEST(SprintfS, FailsSilentlyAndEmptiesTheFieldWhenTheTextDoesNotFit)
{
    char text[16];
    std::memset(text, 'x', sizeof text);
    ::testing::internal::CaptureStderr();
    ::testing::internal::CaptureStdout();
    EXPECT_LT(sprintf_s(text, sizeof text, "%s", "1234567890123456"), 0);
    EXPECT_EQ(::testing::internal::GetCapturedStdout(), "");
    EXPECT_EQ(::testing::internal::GetCapturedStderr(), "");
    EXPECT_STREQ(text, "");
}

TEST(SprintfS, NeverWritesBeyondItsField)
{
    char text[20];
    std::memset(text, 'x', sizeof text);
    EXPECT_LT(sprintf_s(text, 16, "%s", std::string(100, 'y').c_str()), 0);
    EXPECT_EQ(std::string(text + 16, 4), "xxxx");
}

TEST(SprintfS, RefusesAMissingField)
{
    EXPECT_LT(sprintf_s(nullptr, 16, "%s", "x"), 0);
    char text[1] = {'x'};
    EXPECT_LT(sprintf_s(text, 0, "%s", "x"), 0);
    EXPECT_EQ(text[0], 'x');
}
