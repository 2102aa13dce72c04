// bundlectl drill. The short form runs a small selection of the exercises, the long form all.
#include "bundlectl/author/drill_fixture.h"
#include "support/eventually.h"
#include "support/files.h"
#include "support/scale.h"
#include "support/shell.h"

#include <gtest/gtest.h>

#include <csignal>
#include <string>
#include <vector>

using namespace std::chrono_literals;

TEST_F(Drilling, FindsThatAGoodBundleComesBack)
{
    bundles.Bundle("radio")
        .Requires("base")
        .Item("tuner.sh", Sleep())
        .Copy("tunerd", TEST_SLEEPER)
        .Install(MakesData())
        .Write();
    std::vector<std::string> only;
    if (!IsLongForm()) {
        only = {"--item", "tunerd", "--only", "signal:ABRT", "status:2", "status:0"};
    }
    only.insert(only.end(), {"--junit", notes / "junit.xml"});
    const Ended ended = Drill("radio", only);
    EXPECT_EQ(ended.status, 0) << ended.output << ended.errors;
    EXPECT_TRUE(Tells(ended, "tunerd signal:ABRT: passed\n    It ended with SIGABRT, and was run again after "));
    EXPECT_TRUE(Tells(ended, "tunerd status:2: passed\n    It ended with status 2, and was run again after "));
    EXPECT_TRUE(Tells(ended, "tunerd status:0: passed\n    It ended with status 0, and rests.\n"));
    EXPECT_TRUE(Tells(ended, " 0 failed, "));
    EXPECT_TRUE(Has(ReadFile(notes / "junit.xml"), "<testcase classname=\"radio.tunerd\" name=\"status:2\""));
    RunShell("python3 -c 'import sys, xml.etree.ElementTree as t; t.parse(sys.argv[1])' " + (notes / "junit.xml"));
    EXPECT_FALSE(IsAnySleeping());
}

TEST_F(Drilling, FindsAProcessThatIsLeftBehind)
{
    bundles.Bundle("radio").Item("tuner.sh", "sleep 1000 &\n" + Sleep()).Write();
    const Ended ended = Drill("radio", {"--only", "signal:KILL", "--json"});
    EXPECT_EQ(ended.status, 1) << ended.output << ended.errors;
    EXPECT_TRUE(FollowsSchema(ended.output));
    EXPECT_TRUE(Tells(ended, "It leaves a process behind: sleep (process "));
    EXPECT_TRUE(Tells(ended, "\"failed\":1"));
}

TEST_F(Drilling, FindsDataThatAreDamaged)
{
    const std::string state = "\"${0%/bin/*}/data/state\"";
    bundles.Bundle("radio").Item("tuner.sh", Runs("echo good > " + state, ": > " + state)).Install(MakesData()).Write();
    const Ended ended = Drill("radio", {"--only", "signal:KILL", "--check", "grep -q good data/state"});
    EXPECT_EQ(ended.status, 1) << ended.output << ended.errors;
    EXPECT_TRUE(Tells(ended, "The file data/state has lost its content."));
    EXPECT_TRUE(Tells(ended, "The check of the data fails."));
}

TEST_F(Drilling, FindsThatAnItemDoesNotComeBack)
{
    bundles.Bundle("radio").Item("tuner.sh", Runs("", "exit 1")).Write();
    const std::string report = notes / "junit.xml";
    const Ended ended = Drill("radio", {"--only", "signal:SEGV", "--junit", report});
    EXPECT_EQ(ended.status, 1) << ended.output << ended.errors;
    EXPECT_TRUE(Tells(ended, "It ended with SIGSEGV, was run again, and then ended with status 1."));
    EXPECT_TRUE(Has(ReadFile(report), "<failure message=\"It ended with SIGSEGV")) << ReadFile(report);
}

TEST_F(Drilling, SaysWhyABundleIsNotUpFromTheStart)
{
    bundles.Bundle("radio").Item("tuner.sh", "exit 3\n").Write();
    const Ended ended = Drill("radio", {"--patience", "500ms", "--json"});
    EXPECT_EQ(ended.status, 1);
    EXPECT_TRUE(FollowsSchema(ended.output));
    EXPECT_TRUE(Tells(ended, "It is not up from the start."));
    EXPECT_TRUE(Tells(ended, "status 3"));
}

TEST_F(Drilling, ExchangesTheBundleAndFillsTheLogsDisk)
{
    bundles.Bundle("radio").Item("tuner.sh", Sleep()).Write();
    const Ended ended = Drill("radio", {"--only", "signal:KILL", "exchange", "full-log"});
    EXPECT_EQ(ended.status, 0) << ended.output << ended.errors;
    EXPECT_TRUE(Tells(ended, "It was exchanged by a copy, which was up after "));
    EXPECT_TRUE(Tells(ended, "tuner.sh was killed and run again while the log's disk was full. The log goes on"));
}

TEST_F(Drilling, RemovesLibraries)
{
    bundles.Bundle("radio").Library("tuner.so", "SleepForever", TEST_LIBRARY).Install(MakesData()).Write();
    std::vector<std::string> only{"--only", "library"};
    if (IsLongForm()) {
        only.insert(only.end(), {"slow-script", "undisturbed"});
    }
    const Ended ended = Drill("radio", only);
    EXPECT_EQ(ended.status, 0) << ended.output << ended.errors;
    EXPECT_TRUE(Tells(ended, "Without it these are down: tuner.so (status 1). With it back, all are up again."));
    if (IsLongForm()) {
        EXPECT_TRUE(Tells(ended, "tuner.so was killed and run again while update.sh took 4 s."));
        EXPECT_TRUE(Tells(ended, "It was taken out, put back, and is up after a slow install.sh."));
    }
}

TEST_F(Drilling, SaysWhatIsWrongWithItsUse)
{
    bundles.Bundle("radio").Item("tuner.sh", Sleep()).Write();
    const Ended unknown = Run({"drill", bundles / "radio", "--only", "rain"});
    EXPECT_EQ(unknown.status, 2);
    EXPECT_TRUE(Has(unknown.errors, "There are: undisturbed, signal, status, slow-script, library, exchange, full-log"))
        << unknown.errors;
    EXPECT_EQ(Run({"drill", bundles / "radio", "--junit", "/nowhere/junit.xml"}).status, 2);
    EXPECT_EQ(Run({"drill"}).status, 2);
}

TEST_F(Drilling, LeavesNothingWhenASignalEndsIt)
{
    bundles.Bundle("radio").Item("tuner.sh", Sleep()).Write();
    Program program(Words({"drill", bundles / "radio", "--only", "signal"}));
    EXPECT_TRUE(Eventually(20s, [&] { return Has(program.Output(), "passed"); })) << program.Errors();
    program.Signal(SIGINT);
    EXPECT_EQ(program.Wait(), 1);
    EXPECT_TRUE(Has(program.Output(), "It was ended before it was done.\n")) << program.Output();
    EXPECT_FALSE(IsAnySleeping());
}
