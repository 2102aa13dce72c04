// Tests how bundlectl reads the words after a verb.
#include "reading.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

namespace {

class TheWordsAfterAVerb : public ::testing::Test {
public:
    TheWordsAfterAVerb()
    {
        Argument name{"NAME", "the bundle"};
        name.isRequired = true;
        m_arguments.Add(name, bundle);
        m_arguments.Add({"FILE", "files"}, files);
        m_arguments.Add({"-s,--since", "a time", "TIME"}, since);
        m_arguments.Add({"--after", "a change", "CHANGE"}, after);
        m_arguments.Add({"-n,--count", "how many", "N"}, count, 1, 9);
        Argument until{"--until", "a time", "TIME"};
        until.without = "--since";
        m_arguments.Add(until, untilTime);
        m_arguments.AddFlag("-f,--follow", "goes on", follow);
        m_arguments.AddFlag("-j,--json", "for programs", json);
    }

    /// Empty: no fault.
    std::string FaultOf(const std::vector<std::string>& words)
    {
        const Reading reading = ReadWords(m_arguments, words);
        EXPECT_FALSE(reading.wantsHelp);
        return reading.fault;
    }

    bool WantsHelp(const std::vector<std::string>& words) { return ReadWords(m_arguments, words).wantsHelp; }

    std::string Help() const { return UsageOf(m_arguments) + "\n" + TellArguments(m_arguments); }

    std::string bundle;
    std::string since;
    std::string untilTime;
    std::vector<std::string> files;
    std::vector<std::string> after;
    long count = 0;
    bool follow = false;
    bool json = false;

private:
    Arguments m_arguments;
};

} // namespace

TEST_F(TheWordsAfterAVerb, GoToArgumentsInTheirOrderAndToOptionsByName)
{
    EXPECT_EQ(FaultOf({"radio", "--since", "10m", "a", "-n", "3", "b", "-f"}), "");
    EXPECT_EQ(bundle, "radio");
    EXPECT_EQ(files, (std::vector<std::string>{"a", "b"}));
    EXPECT_EQ(since, "10m");
    EXPECT_EQ(count, 3);
    EXPECT_TRUE(follow);
    EXPECT_FALSE(json);
}

TEST_F(TheWordsAfterAVerb, MayHaveValuesAndFlagsJoined)
{
    EXPECT_EQ(FaultOf({"radio", "--since=10m=", "-fjn3"}), "");
    EXPECT_EQ(since, "10m=");
    EXPECT_EQ(count, 3);
    EXPECT_TRUE(follow && json);
}

TEST_F(TheWordsAfterAVerb, MayBeginWithADash)
{
    EXPECT_EQ(FaultOf({"-", "--since", "-", "--", "--json", "-f"}), "");
    EXPECT_EQ(bundle, "-");
    EXPECT_EQ(since, "-");
    EXPECT_EQ(files, (std::vector<std::string>{"--json", "-f"}));
    EXPECT_FALSE(json);
}

TEST_F(TheWordsAfterAVerb, MayBeSeveralForOneOption)
{
    EXPECT_EQ(FaultOf({"radio", "--after", "add", "tuner", "--json"}), "");
    EXPECT_EQ(after, (std::vector<std::string>{"add", "tuner"}));
    EXPECT_TRUE(json);
}

TEST_F(TheWordsAfterAVerb, AreRefusedWithAReason)
{
    EXPECT_EQ(FaultOf({}), "NAME is missing");
    EXPECT_EQ(FaultOf({"radio", "--gently"}), "there is no option --gently");
    EXPECT_EQ(FaultOf({"radio", "--sin", "1m"}), "there is no option --sin");
    EXPECT_EQ(FaultOf({"radio", "-x"}), "there is no option -x");
    EXPECT_EQ(FaultOf({"radio", "--a\x1b"}), "there is no option --a\\033");
    EXPECT_EQ(FaultOf({"radio", "--since"}), "--since needs a value: TIME");
    EXPECT_EQ(FaultOf({"radio", "--json=yes"}), "--json has no value");
    EXPECT_EQ(FaultOf({"radio", "--since", "1m", "--since", "2m"}), "--since is given twice");
    EXPECT_EQ(FaultOf({"radio", "--since", "1m", "--until", "2m"}), "--until and --since exclude each other");
    EXPECT_EQ(FaultOf({"radio", "-n", "10"}), "--count: \"10\" is no number from 1 to 9");
    EXPECT_EQ(bundle, "") << "an argument has taken a value although another one is wrong";
}

TEST_F(TheWordsAfterAVerb, AskForHelpWhateverElseStandsThere)
{
    EXPECT_TRUE(WantsHelp({"--help"}));
    EXPECT_TRUE(WantsHelp({"radio", "-fh"}));
    EXPECT_FALSE(WantsHelp({"radio", "--", "--help"}));
    const std::string help = Help();
    EXPECT_EQ(help.rfind("[OPTIONS] NAME [FILE...]\n", 0), 0U) << help;
    EXPECT_NE(help.find("  --after CHANGE...           a change\n"), std::string::npos) << help;
    EXPECT_NE(help.find("  --until TIME                a time; not with --since\n"), std::string::npos) << help;
}

TEST(TheLastWord, IsOneTooManyWhereNoArgumentTakesIt)
{
    Arguments arguments;
    std::string name;
    arguments.Add({"[NAME]", "the bundle"}, name);
    EXPECT_EQ(ReadWords(arguments, {"radio", "tuner"}).fault, "there is one word too many: \"tuner\"");
}
