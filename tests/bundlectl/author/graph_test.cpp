// bundlectl graph.
#include "bundlectl/verb_test.h"
#include "support/collection_builder.h"
#include "support/files.h"
#include "support/program.h"
#include "support/temporary_directory.h"

#include <gtest/gtest.h>

#include <filesystem>
#include <string>
#include <vector>

namespace fs = std::filesystem;

namespace {

class AGraph : public ::testing::Test {
public:
    AGraph()
    {
        collection.Bundle("top").Requires("radio").Requires("base").Write();
        collection.Bundle("radio").Requires("base").Write();
        collection.Bundle("base").Write();
        collection.Bundle("lonely").Requires("nowhere").Write();
        collection.Bundle("x").Requires("y").Write();
        collection.Bundle("y").Requires("x").Write();
    }

    Ended Run(std::vector<std::string> arguments) const
    {
        arguments.insert(arguments.begin(), {"graph", collection.Path()});
        return RunToEnd(BUNDLECTL_PROGRAM, std::move(arguments));
    }

    CollectionBuilder collection;
};

} // namespace

TEST_F(AGraph, NumbersBundlesInTheOrderOfTheirStart)
{
    const Ended ended = Run({});
    EXPECT_EQ(ended.status, 0) << ended.errors;
    EXPECT_EQ(ended.output, "1 base\n2 radio requires base\n3 top requires radio, base\n"
                            "- lonely requires nowhere (missing)\n- x requires y (circle)\n- y requires x (circle)\n");
}

TEST_F(AGraph, ShowsWhatRequiresABundle)
{
    EXPECT_EQ(Run({"--reverse", "radio"}).output, "2 radio requires base\n3 top requires radio, base\n");
    const Ended unknown = Run({"--reverse", "rado"});
    EXPECT_EQ(unknown.status, 3);
    EXPECT_EQ(unknown.errors, "bundlectl: there is no bundle \"rado\". Did you mean \"radio\"?\n");
}

TEST_F(AGraph, IsWrittenForOtherPrograms)
{
    const Ended dot = Run({"--format=dot"});
    EXPECT_TRUE(Tells(dot, "    \"radio\" [label=\"2. radio\"];\n    \"radio\" -> \"base\";\n"));
    EXPECT_TRUE(Tells(dot, "\"x\" -> \"y\" [color=red"));
    EXPECT_TRUE(Tells(dot, "\"lonely\" -> \"nowhere\" [style=dotted"));
    const Ended mermaid = Run({"--format=mermaid"});
    EXPECT_TRUE(Tells(mermaid, "flowchart LR\n    n0[\"1. base\"]\n"));
    EXPECT_TRUE(Tells(mermaid, " == circle ==> "));
    EXPECT_TRUE(FollowsSchema(Run({"--json"}).output));
}

TEST_F(AGraph, IsDrawnByGraphviz)
{
    const TemporaryDirectory programs;
    WriteFile(programs / "dot", "#!/bin/sh\necho \"drawn $*\"\ncat\n");
    fs::permissions(programs / "dot", fs::perms(0755));
    const std::string dot = Run({"--format=dot"}).output;
    const Ended ended = RunToEnd("/usr/bin/env", {"PATH=" + programs.Path().string() + ":/usr/bin:/bin",
                                                  BUNDLECTL_PROGRAM, "graph", collection.Path(), "--format=svg"});
    EXPECT_EQ(ended.status, 0) << ended.errors;
    EXPECT_EQ(ended.output, "drawn -Tsvg\n" + dot);
}

TEST_F(AGraph, SaysWhatDrawsThePicture)
{
    const Ended ended = RunToEnd(
        "/usr/bin/env", {"-i", "PATH=/nowhere", BUNDLECTL_PROGRAM, "graph", collection.Path(), "--format=svg"});
    EXPECT_EQ(ended.status, 1);
    EXPECT_EQ(ended.errors, "bundlectl: graphviz draws the picture, and it is not installed: install the package "
                            "graphviz, or use --format=mermaid.\n");
}
