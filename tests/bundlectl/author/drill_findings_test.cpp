// Each fault that bundlectl drill searches for, in a bundle that has it.
#include "bundlectl/author/drill_fixture.h"
#include "support/scale.h"
#include "support/shell.h"

#include <gtest/gtest.h>

#include <string>

namespace {

/// In front of an item that stays up in spite of the signal: its reaction to SIGUSR1.
std::string OnUser1(const std::string& reaction)
{
    return "trap '" + reaction + "' USR1\nwhile :; do sleep 0.1; done\n";
}

} // namespace

TEST_F(Drilling, FindsDescriptorsThatBecomeMore)
{
    // It waits by a builtin command, because a busy machine may take a second to start a program.
    const std::string wait = "read -r -t 0.1 -u \"$quiet\"";
    const std::string leak = "exec {quiet}<> <(:)\nwhile :; do exec {new}< /dev/null; " + wait + "; done\n";
    bundles.Bundle("radio").Item("tunerd", "#!/bin/bash\n" + leak).Write();
    const Ended ended = Drill("radio", {"--only", "undisturbed", "--json"});
    EXPECT_EQ(ended.status, 1) << ended.output << ended.errors;
    EXPECT_TRUE(Tells(ended, "They become more each second."));
    EXPECT_FALSE(Has(ended.output, "\"descriptors_left\":0")) << ended.output;
}

TEST_F(Drilling, FindsDescriptorsThatTheProcessBeforeDidNotHave)
{
    bundles.Bundle("radio").Item("tuner.sh", Runs("", "exec 9< /dev/null")).Write();
    const Ended ended = Drill("radio", {"--only", "signal:KILL", "--json"});
    EXPECT_EQ(ended.status, 1) << ended.output << ended.errors;
    EXPECT_TRUE(Tells(ended, "The new process has "));
    EXPECT_TRUE(Tells(ended, "\"descriptors_left\":1"));
}

TEST_F(Drilling, FindsThatAnItemEndsByItself)
{
    // The drill begins when the server serves.
    const std::string serves = "grep -q 'bundle server start running' \"$ZQ_LOG_FILE\"";
    bundles.Bundle("radio").Item("tuner.sh", "until " + serves + "; do sleep 0.1; done\nsleep 2\nexit 3\n").Write();
    const Ended ended = Drill("radio", {"--only", "undisturbed"});
    EXPECT_EQ(ended.status, 1) << ended.output << ended.errors;
    EXPECT_TRUE(Tells(ended, "It ended by itself with status 3."));
}

TEST_F(Drilling, FindsThatNoRestartHelps)
{
    bundles.Bundle("radio").Item("tuner.sh", Runs("", "exit 1")).Write();
    const Ended ended = Drill("radio", {"--only", "signal:KILL", "signal:SEGV", "--patience", "1s"});
    EXPECT_EQ(ended.status, 1) << ended.output << ended.errors;
    EXPECT_TRUE(Tells(ended, "tuner.sh signal:SEGV: failed\n"
                             "    The bundle is not up before it, and a restart does not help.\n"));
}

TEST_F(Drilling, FindsAnEndThatTheServerDoesNotNotice)
{
    // The first item is the leader of the group. The second one leaves it.
    bundles.Bundle("radio").Item("first.sh", Sleep()).Item("tuner.sh", "exec setsid sleep 1000\n").Write();
    const Ended ended = Drill("radio", {"--only", "signal:KILL", "--item", "tuner.sh"});
    EXPECT_EQ(ended.status, 1) << ended.output << ended.errors;
    EXPECT_TRUE(Tells(ended, "It ended, and the server does not notice it."));
}

TEST_F(Drilling, FindsThatScriptsHarmTheBundle)
{
    bundles.Bundle("slow").Item("tuner.sh", Sleep()).Install(Shell("")).Update(Shell("exec sleep 1000")).Write();
    const Ended slow = Drill("slow", {"--only", Scaled("slow-script:update", "slow-script"), "--patience", "1s"});
    EXPECT_EQ(slow.status, 1) << slow.output << slow.errors;
    EXPECT_TRUE(Tells(slow, "The bundle is not up after a slow update. The bundle is not up after the next update."));
    if (!IsLongForm()) {
        return;
    }
    EXPECT_TRUE(Tells(slow, "The server does not notice that it was taken out. It is not up after the next update."));
    const std::string note = notes / "installed";
    bundles.Bundle("radio")
        .Item("tuner.sh", Sleep())
        .Install(Shell("[ ! -e " + note + " ] || echo 'exit 1' > \"${0%/script/*}/bin/tuner.sh\"\n: > " + note))
        .Write();
    const Ended harmful = Drill("radio", {"--only", "slow-script:install", "--patience", "1s"});
    EXPECT_EQ(harmful.status, 1) << harmful.output << harmful.errors;
    EXPECT_TRUE(Tells(harmful, "It is not up after a slow install.sh."));
}

TEST_F(Drilling, FindsThatTheServerHangs)
{
    const std::string radio = bundles.Bundle("radio").Item("tuner.sh", OnUser1("kill -STOP $PPID")).Write();
    RunShell("mkdir " + radio + "/lib && cp " TEST_LIBRARY " " + radio + "/lib/spare.so");
    std::vector<std::string> arguments{"--patience", "1s", "--only", "signal:USR1", "full-log"};
    if (IsLongForm()) {
        arguments.insert(arguments.end(), {"slow-script:update", "library", "exchange"});
    }
    const Ended ended = Drill("radio", arguments);
    EXPECT_EQ(ended.status, 1) << ended.output << ended.errors;
    EXPECT_TRUE(Tells(ended, "tuner.sh was killed while the log's disk was full, and was not run again."));
    EXPECT_TRUE(Tells(ended, "The bundle is not up again afterwards."));
    if (IsLongForm()) {
        EXPECT_TRUE(Tells(ended, "The server does not run update.sh."));
        EXPECT_TRUE(Tells(ended, "With it back, not all are up again."));
        EXPECT_TRUE(Tells(ended, "It was exchanged by a copy, which is not up."));
    }
}

TEST_F(Drilling, FindsThatTheServerEnds)
{
    bundles.Bundle("radio").Item("tuner.sh", OnUser1("kill -KILL $PPID")).Write();
    const Ended ended = Drill("radio", {"--only", "signal:USR1", "signal:KILL"});
    EXPECT_EQ(ended.status, 1) << ended.output << ended.errors;
    EXPECT_TRUE(Tells(ended, "The server has ended by itself: SIGKILL.\n"));
}
