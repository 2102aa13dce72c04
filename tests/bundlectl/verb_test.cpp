#include "bundlectl/verb_test.h"

#include <csignal>

void VerbTest::ServeAnItemTwice()
{
    collection.Bundle("radio").Copy("tuner", TEST_SLEEPER).Write();
    Serve();
    ASSERT_NE(daemon.WaitForItem("radio", "tuner"), 0);
    daemon.Stop(SIGKILL);
    daemon.Start();
    ASSERT_TRUE(daemon.WaitForLog("bundle server start running...", 2));
}

::testing::AssertionResult FollowsSchema(const std::string& text)
{
    return FollowsSchema(text, JSON_SCHEMA);
}

::testing::AssertionResult FollowsSchema(const std::string& text, const std::string& schema)
{
    const TemporaryDirectory directory;
    WriteFile(directory / "output", text);
    const Ended checked =
        RunToEnd("/bin/sh", {"-c", "exec python3 " VALIDATOR " " + schema + " < " + (directory / "output")});
    if (checked.status == 0) {
        return ::testing::AssertionSuccess();
    }
    return ::testing::AssertionFailure() << checked.errors << "\n" << text;
}

::testing::AssertionResult Tells(const Ended& ended, const std::string& part)
{
    if (Has(ended.output, part)) {
        return ::testing::AssertionSuccess();
    }
    return ::testing::AssertionFailure() << "no \"" << part << "\" in:\n" << ended.output << ended.errors;
}
