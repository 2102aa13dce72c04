#ifndef TESTS_BUNDLECTL_VERB_TEST_H
#define TESTS_BUNDLECTL_VERB_TEST_H

#include "support/program.h"
#include "system/system_test.h"

#include <string>
#include <vector>

/// A daemon, and bundlectl to examine it. bundlectl finds the daemon by itself, because both see the same private /mnt.
class VerbTest : public SystemTest {
public:
    static Ended Run(std::vector<std::string> arguments) { return RunToEnd(BUNDLECTL_PROGRAM, std::move(arguments)); }

    /// Starts the daemon, and waits until it has started all bundles that can be started.
    void Serve() { ASSERT_TRUE(daemon.StartServing()); }

    /// Kills a server and starts the next, so the item "tuner" of the bundle "radio" runs twice.
    void ServeAnItemTwice();
};

/// Whether each line of a text follows the schema of bundlectl's output for programs.
::testing::AssertionResult FollowsSchema(const std::string& text);
/// The same for a schema of its own, whose path is given.
::testing::AssertionResult FollowsSchema(const std::string& text, const std::string& schema);

/// Fails unless the text has the part; the failure shows both.
::testing::AssertionResult Tells(const Ended& ended, const std::string& part);

#endif
