#include "system/system_test.h"

#include <sstream>

namespace {

class Help : public SystemTest, public ::testing::WithParamInterface<const char*> {};
class StartingWithAFaultyCommandLine : public SystemTest {};
class StartingWithAFaultyConfiguration : public SystemTest {};
class TheConfiguration : public SystemTest {};

int Count(const std::string& text, const std::string& piece)
{
    int count = 0;
    for (std::size_t at = text.find(piece); at != std::string::npos; at = text.find(piece, at + piece.size())) {
        ++count;
    }
    return count;
}

/// The words of a text, with one blank between them.
std::string Unfolded(const std::string& text)
{
    std::istringstream words(text);
    std::string unfolded;
    for (std::string word; words >> word;) {
        unfolded += word + " ";
    }
    return unfolded;
}

} // namespace

TEST_P(Help, IsPrintedWithoutLoadingABundle)
{
    collection.Bundle("radio").Write();
    daemon.SetArguments({GetParam()});
    daemon.Start();
    EXPECT_EQ(daemon.WaitForEnd().value_or(ProcessEnd{}).status, 0);
    const std::string help = daemon.Output();
    EXPECT_EQ(help.rfind("usage: bundle_server OPTIONS\na bundles management platform.\n", 0), 0U) << help;
    // The framework chooses the layout.
    const std::string words = Unfolded(help);
    EXPECT_EQ(Count(words, "-h, --help display help information on command line arguments"), 1) << help;
    EXPECT_EQ(Count(words, "-ffile, --config-file=file load configuration data from a file"), 1) << help;
    EXPECT_EQ(daemon.Errors(), "");
    EXPECT_TRUE(daemon.Log().empty());
}
INSTANTIATE_TEST_SUITE_P(ByItsNames, Help, ::testing::Values("--help", "-h"),
                         [](const auto& name) { return std::string(name.index == 0 ? "Long" : "Short"); });

TEST_F(TheConfiguration, IsLoadedIfTheHelpOptionFollowsIt)
{
    WriteFile(Note("some.properties"), "global.bundle_collection_dir = " + collection.Path() + "\n");
    daemon.SetArguments({"-f", Note("some.properties"), "--help"});
    daemon.Start();
    EXPECT_EQ(daemon.WaitForEnd().value_or(ProcessEnd{}).status, 0);
    EXPECT_EQ(Count(daemon.Output(), "a bundles management platform."), 1);
    EXPECT_EQ(daemon.Messages(),
              (std::vector<std::string>{"load config from [" + Note("some.properties") + "]...", "load config done."}));
}

TEST_F(StartingWithAFaultyCommandLine, IsRefusedWithoutAConfigurationFile)
{
    daemon.SetArguments({});
    daemon.Start();
    EXPECT_EQ(daemon.WaitForEnd().value_or(ProcessEnd{}).status, 78);
    EXPECT_EQ(Count(daemon.Errors(), "config-file"), 1) << daemon.Errors();
    EXPECT_TRUE(daemon.Log().empty());
}

TEST_F(StartingWithAFaultyCommandLine, IsRefusedWithAnUnknownOption)
{
    daemon.SetArguments({"--frobnicate"});
    daemon.Start();
    EXPECT_EQ(daemon.WaitForEnd().value_or(ProcessEnd{}).status, 78);
    EXPECT_EQ(Count(daemon.Errors(), "frobnicate"), 1) << daemon.Errors();
}

TEST_F(StartingWithAFaultyCommandLine, IsRefusedWhenTheConfigurationFileIsMissing)
{
    daemon.SetArguments({"-f", Note("missing.ini")});
    daemon.Start();
    EXPECT_EQ(daemon.WaitForEnd().value_or(ProcessEnd{}).status, 78);
    EXPECT_EQ(Count(daemon.Errors(), Note("missing.ini")), 1) << daemon.Errors();
    EXPECT_EQ(daemon.Messages(), std::vector<std::string>{"load config from [" + Note("missing.ini") + "]..."});
}

TEST_F(StartingWithAFaultyConfiguration, EndsWithASoftwareErrorWhenTheCollectionIsNotNamed)
{
    daemon.Configure("global.bundle_collection_dir", "");
    daemon.Configure("global.other", "1");
    daemon.Start();
    EXPECT_EQ(daemon.WaitForEnd().value_or(ProcessEnd{}).status, 70);
    EXPECT_EQ(daemon.Errors(), "Not found: global.bundle_collection_dir\n");
    EXPECT_EQ(daemon.Messages().back(), "init bundle server...");
}

TEST_F(StartingWithAFaultyConfiguration, EndsWithASoftwareErrorWhenTheCollectionIsMissing)
{
    daemon.Configure("global.bundle_collection_dir", Note("nowhere"));
    daemon.Start();
    EXPECT_EQ(daemon.WaitForEnd().value_or(ProcessEnd{}).status, 70);
    EXPECT_EQ(Lines(daemon.Errors()).size(), 1U) << daemon.Errors();
    EXPECT_EQ(Count(daemon.Errors(), Note("nowhere")), 1) << daemon.Errors();
    EXPECT_EQ(daemon.Messages().back(), "bundle collection dir -> [" + Note("nowhere") + "]");
}

TEST_F(StartingWithAFaultyConfiguration, EndsWithASoftwareErrorWhenTheCollectionIsAFile)
{
    WriteFile(Note("file"), "");
    daemon.Configure("global.bundle_collection_dir", Note("file"));
    daemon.Start();
    EXPECT_EQ(daemon.WaitForEnd().value_or(ProcessEnd{}).status, 70);
    EXPECT_EQ(Lines(daemon.Errors()).size(), 1U) << daemon.Errors();
}

class ConfigurationFile : public SystemTest, public ::testing::WithParamInterface<const char*> {
protected:
    std::string Text() const
    {
        const std::string format = GetParam();
        if (format == "ini") {
            return "[global]\nbundle_collection_dir = " + collection.Path() + "\n";
        }
        if (format == "xml") {
            return "<config><global><bundle_collection_dir>" + collection.Path() +
                   "</bundle_collection_dir></global></config>\n";
        }
        if (format == "json") {
            return "{\"global\": {\"bundle_collection_dir\": \"" + collection.Path() + "\"}}\n";
        }
        return "global.bundle_collection_dir = " + collection.Path() + "\n";
    }
};

TEST_P(ConfigurationFile, IsReadInTheFormatOfItsEnding)
{
    const std::string path = Note(std::string("server.") + GetParam());
    WriteFile(path, Text());
    collection.Bundle("radio").Write();
    daemon.SetArguments({"--config-file=" + path});
    ASSERT_TRUE(daemon.StartServing());
    EXPECT_TRUE(InOrder(daemon.Messages(), {"load config from [" + path + "]...", "load config done.",
                                            "bundle collection dir -> [" + collection.Path() + "]",
                                            "bundle[radio] state changing[Starting] -> [Active]"}));
    EXPECT_EQ(daemon.Stop().status, 0);
}
INSTANTIATE_TEST_SUITE_P(Is, ConfigurationFile, ::testing::Values("ini", "properties", "xml", "json"),
                         [](const auto& format) { return std::string(format.param); });
