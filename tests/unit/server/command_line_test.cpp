#include "unit/server/open_server.h"

#include <Poco/Exception.h>
#include <Poco/Util/Option.h>
#include <Poco/Util/OptionException.h>
#include <Poco/Util/OptionSet.h>

#include <unistd.h>

#include <iterator>

namespace {

class TheCommandLine : public TheServer {};

} // namespace

TEST_F(TheCommandLine, HasTheFrameworksOptionsAndTwoOfItsOwn)
{
    class Bare : public Poco::Util::ServerApplication {
    public:
        using ServerApplication::defineOptions;
    };
    Poco::Util::OptionSet basic;
    {
        Bare bare;
        bare.defineOptions(basic);
    }
    OpenServer own;
    Poco::Util::OptionSet options;
    own.defineOptions(options);
    ASSERT_EQ(std::distance(options.begin(), options.end()), std::distance(basic.begin(), basic.end()) + 2);
    const Poco::Util::Option& help = *(options.end() - 2);
    EXPECT_EQ(help.fullName(), "help");
    EXPECT_EQ(help.shortName(), "h");
    EXPECT_EQ(help.description(), "display help information on command line arguments");
    EXPECT_FALSE(help.required());
    EXPECT_FALSE(help.repeatable());
    EXPECT_FALSE(help.takesArgument());
    const Poco::Util::Option& config = *(options.end() - 1);
    EXPECT_EQ(config.fullName(), "config-file");
    EXPECT_EQ(config.shortName(), "f");
    EXPECT_EQ(config.description(), "load configuration data from a file");
    EXPECT_TRUE(config.required());
    EXPECT_FALSE(config.repeatable());
    EXPECT_TRUE(config.takesArgument());
    EXPECT_TRUE(config.argumentRequired());
    EXPECT_EQ(config.argumentName(), "file");
}

TEST_F(TheCommandLine, ShowsHelpAndEndsWithStatusZero)
{
    for (const char* const option : {"--help", "-h"}) {
        const auto askForHelp = [option] {
            ::dup2(STDERR_FILENO, STDOUT_FILENO); // the death test matches standard error
            OpenServer asked;
            asked.init({"/usr/sbin/bundle_server", option});
            ::_exit(1);
        };
        EXPECT_EXIT(askForHelp(), ::testing::ExitedWithCode(0),
                    "usage: .*bundle_server OPTIONS\n.*a bundles management platform\\.");
    }
    EXPECT_TRUE(log.Messages().empty());
}

TEST_F(TheCommandLine, LoadsAFileThatPrecedesTheHelpOption)
{
    const auto askForHelp = [this] {
        ::dup2(STDERR_FILENO, STDOUT_FILENO);
        OpenServer asked;
        asked.init({"bundle_server", "-f", ConfigFor(collection.Path()), "-h"});
        ::_exit(1);
    };
    EXPECT_EXIT(askForHelp(), ::testing::ExitedWithCode(0), "");
    EXPECT_TRUE(log.Has("load config done."));
    EXPECT_FALSE(log.HasPart("init bundle server"));
}

TEST_F(TheCommandLine, IsRefusedWithoutAConfigurationFile)
{
    server.emplace();
    EXPECT_THROW(server->init({"bundle_server"}), Poco::Util::MissingOptionException);
    server.reset();
    server.emplace();
    EXPECT_THROW(server->init({"bundle_server", "-f"}), Poco::Util::MissingArgumentException);
}

TEST_F(TheCommandLine, IsRefusedWithTwoConfigurationFiles)
{
    const std::string config = ConfigFor(collection.Path());
    server.emplace();
    EXPECT_THROW(server->init({"bundle_server", "-f", config, "-f", config}), Poco::Util::DuplicateOptionException);
}

TEST_F(TheCommandLine, NamesTheConfigurationFile)
{
    const std::string config = ConfigFor(collection.Path());
    server.emplace();
    server->init({"bundle_server", "--config-file=" + config});
    EXPECT_EQ(log.Messages(), (Messages{"load config from [" + config + "]...", "load config done."}));
    EXPECT_EQ(log.Records().at(0).level, "INFO");
    EXPECT_EQ(server->config().getString("global.bundle_collection_dir"), collection.Path());
}

TEST_F(TheCommandLine, FailsForAFileThatCannotBeLoaded)
{
    server.emplace();
    EXPECT_THROW(server->init({"bundle_server", "-f", outside / "nowhere.ini"}), Poco::Exception);
    EXPECT_EQ(log.Messages(), Messages{"load config from [" + (outside / "nowhere.ini") + "]..."});
}

TEST_F(TheCommandLine, AcceptsAFileOfAnotherFormat)
{
    const std::string config = outside / "server.json";
    WriteFile(config, R"({"global": {"bundle_collection_dir": ")" + collection.Path() + "\"}}");
    ReadConfig(config);
    EXPECT_EQ(server->config().getString("global.bundle_collection_dir"), collection.Path());
}
