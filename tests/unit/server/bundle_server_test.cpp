#include "support/eventually.h"
#include "support/fault.h"
#include "support/private_mnt.h"
#include "unit/server/open_server.h"

#include <algapp_bolt_comm.h>

#include <Poco/Exception.h>
#include <Poco/Util/Option.h>
#include <Poco/Util/OptionException.h>
#include <Poco/Util/OptionSet.h>

#include <gtest/gtest.h>

#include <fcntl.h>
#include <pthread.h>
#include <sys/stat.h>
#include <unistd.h>

#include <array>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstring>
#include <filesystem>
#include <memory>
#include <optional>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

using namespace std::chrono_literals;
using Clock = std::chrono::steady_clock;
using Messages = std::vector<std::string>;

namespace {

constexpr auto PATIENCE = 30s;

[[maybe_unused]] const auto* const g_privateMnt = ::testing::AddGlobalTestEnvironment(new PrivateMnt);

class TheCommandLine : public TheServer {};
class StartingTheServer : public TheServer {};
class TheService : public TheServer {};
class AnAddedItem : public TheServer {};
class ARemovedItem : public TheServer {};
class AModifiedItem : public TheServer {};

class ADeleteRequest : public ARequest {
public:
    ~ADeleteRequest() override { std::filesystem::remove(SystemServer::EVENT_SERVICE_PATH); }

    /// Opens the event service for this test.
    void Listen()
    {
        std::filesystem::create_directories("/mnt/bolt");
        std::filesystem::remove(SystemServer::EVENT_SERVICE_PATH);
        ASSERT_EQ(::mkfifo(SystemServer::EVENT_SERVICE_PATH, 0600), 0);
        m_listener.reset(new int(::open(SystemServer::EVENT_SERVICE_PATH, O_RDONLY | O_NONBLOCK | O_CLOEXEC)));
    }
    std::string Received() const
    {
        std::array<char, 4096> data{};
        const ssize_t size = ::read(*m_listener, data.data(), data.size());
        return size > 0 ? std::string(data.data(), static_cast<std::size_t>(size)) : std::string();
    }

    /// The texts by which a delete ends that has not removed the directory.
    const std::string publishFailure = "open event srv fail";

private:
    struct Close {
        void operator()(const int* fd) const
        {
            ::close(*fd);
            delete fd;
        }
    };
    std::unique_ptr<int, Close> m_listener;
};

} // namespace

// ---- the command line ----

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
            ::dup2(STDERR_FILENO, STDOUT_FILENO); // what is matched is the standard error
            OpenServer asked;
            asked.init({"/usr/sbin/bundle_server", option});
            ::_exit(1);
        };
        EXPECT_EXIT(askForHelp(), ::testing::ExitedWithCode(0),
                    "usage: .*bundle_server OPTIONS\n.*a bundles management platform\\.");
    }
    EXPECT_TRUE(log.Messages().empty());
}

TEST_F(TheCommandLine, LoadsAFileThatStandsBeforeHelp)
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

TEST_F(TheCommandLine, TakesAFileOfAnotherFormat)
{
    const std::string config = outside / "server.json";
    WriteFile(config, R"({"global": {"bundle_collection_dir": ")" + collection.Path() + "\"}}");
    ReadConfig(config);
    EXPECT_EQ(server->config().getString("global.bundle_collection_dir"), collection.Path());
}

// ---- start-up ----

TEST_F(StartingTheServer, LogsItsStepsInOrder)
{
    collection.Bundle("media").Write();
    ReadConfig(ConfigFor(collection.Path()));
    log.Restart();
    server->initialize(*server);
    const Messages steps{"init bundle server...",
                         "bundle collection dir -> [" + collection.Path() + "]",
                         "create BundleFactory...",
                         "create BundleFactory done.",
                         "create BundleManager...",
                         "create BundleManager done.",
                         "LoadAllBundles...",
                         "load bundle from " + (collection / "media") + "...",
                         "load bundle done.",
                         "LoadAllBundles done.",
                         "ResolveAllBundles...",
                         "bundle[media] state changing[Installed] -> [Resolved]",
                         "ResolveAllBundles done.",
                         "StartAllBundles...",
                         "bundle[media] state changing[Starting] -> [Active]",
                         "StartAllBundles done.",
                         "init bundle server done."};
    EXPECT_TRUE(log.InOrder(steps));
    EXPECT_EQ(log.Messages().front(), steps.front());
    EXPECT_EQ(log.Messages().back(), steps.back());
    for (const LogRecord& record : log.Records()) {
        EXPECT_EQ(record.level, "INFO") << record.message;
    }
    EXPECT_NO_THROW(server->RethrowStartupFailure());
}

TEST_F(StartingTheServer, WritesNothingAtItsEndAfterAnEmptyCollection)
{
    StartUp();
    log.Restart();
    server.reset();
    EXPECT_TRUE(log.Messages().empty());
}

TEST_F(StartingTheServer, LogsEachStepOfAnEmptyCollectionAndNothingElse)
{
    ReadConfig(ConfigFor(collection.Path()));
    log.Restart();
    server->initialize(*server);
    EXPECT_EQ(log.Messages(), (Messages{"init bundle server...", "bundle collection dir -> [" + collection.Path() + "]",
                                        "create BundleFactory...", "create BundleFactory done.",
                                        "create BundleManager...", "create BundleManager done.", "LoadAllBundles...",
                                        "LoadAllBundles done.", "ResolveAllBundles...", "ResolveAllBundles done.",
                                        "StartAllBundles...", "StartAllBundles done.", "init bundle server done."}));
}

TEST_F(StartingTheServer, FailsWithoutTheKeyOfTheCollection)
{
    const std::string config = outside / "empty.ini";
    WriteFile(config, "[global]\n");
    ReadConfig(config);
    log.Restart();
    EXPECT_THROW(server->initialize(*server), Poco::NotFoundException);
    EXPECT_EQ(log.Messages(), Messages{"init bundle server..."});
    try {
        server->RethrowStartupFailure();
        FAIL() << "the failure is forgotten";
    } catch (const Poco::NotFoundException& e) {
        EXPECT_EQ(e.displayText(), "Not found: global.bundle_collection_dir");
    }
}

TEST_F(StartingTheServer, FailsWithoutTheCollection)
{
    ReadConfig(ConfigFor(collection / "nowhere"));
    EXPECT_THROW(server->initialize(*server), Poco::Exception);
    EXPECT_THROW(server->RethrowStartupFailure(), Poco::Exception);
    EXPECT_FALSE(log.Has("create BundleFactory..."));
}

TEST_F(StartingTheServer, PassesOnExceptionsOfTheStandardLibrary)
{
    collection.Bundle("media").Item("ab").Write();
    ReadConfig(ConfigFor(collection.Path()));
    EXPECT_THROW(server->initialize(*server), std::out_of_range);
    EXPECT_THROW(server->RethrowStartupFailure(), std::out_of_range);
    EXPECT_FALSE(log.Has("LoadAllBundles done."));
}

TEST_F(StartingTheServer, FailsWhenTheWatchersEventsCannotBeSubscribed)
{
    std::optional<Fault> noLock;
    const SleepyWatchers failing([&noLock] { noLock.emplace(Call::LOCK_MUTEX, EINVAL, 1); });
    ReadConfig(ConfigFor(collection.Path()));
    try {
        server->initialize(*server);
        FAIL() << "subscribed without a lock";
    } catch (const Poco::SystemException& e) {
        EXPECT_EQ(e.message(), "cannot lock mutex");
    }
    EXPECT_FALSE(log.Has("create BundleFactory..."));
}

TEST_F(StartingTheServer, SkipsBundlesThatFail)
{
    collection.Bundle("broken").Manifest("[global]\n").Write();
    collection.Bundle("dependant").Requires("missing").Write();
    collection.Bundle("unstartable").ThreadMode().Item("noLibrary").Write();
    collection.Bundle("media").Write();
    StartUp();
    EXPECT_TRUE(
        log.HasError("failed to load bundles from " + (collection / "broken") + ":Not found: global.bundle_name"));
    EXPECT_TRUE(log.HasPart("failed to resolve bundle[dependant] :"));
    EXPECT_TRUE(log.HasPart("failed to start bundle[unstartable] :"));
    EXPECT_TRUE(log.InOrder({"bundle[media] state changing[Starting] -> [Active]", "init bundle server done."}));
}

TEST_F(StartingTheServer, StopsNothingWhenItEnds)
{
    collection.Bundle("media").Uninstall(Noting("uninstall")).Write();
    StartUp();
    log.Restart();
    server.reset();
    EXPECT_TRUE(log.Messages().empty());
    EXPECT_EQ(Notes(), "");
}

TEST_F(StartingTheServer, HoldsEventsUntilTheCollectionIsLoaded)
{
    // The watcher lives before the manager: what it raises then is dealt with once start-up has read the collection.
    const std::string path = collection.Bundle("media").Write();
    const std::string gone = collection / "gone";
    std::vector<std::thread> events;
    const SleepyWatchers eager([&] {
        events.emplace_back([&] { RaiseAdded(path); });
        events.emplace_back([&] { RaiseRemoved(gone); });
        EXPECT_TRUE(Eventually(PATIENCE, [this] {
            return log.Count("dir item add event happen.") == 1 && log.Count("remove a bundle dir.") == 1;
        }));
    });
    StartUp();
    for (std::thread& event : events) {
        event.join();
    }
    EXPECT_TRUE(log.InOrder({"dir item add event happen.", "create BundleManager...", "load bundle[media] success.",
                             "bundle dir[" + path + "] is loaded already."}));
    EXPECT_TRUE(log.InOrder({"remove a bundle dir.", "LoadAllBundles done.", "find bundle[" + gone + "] fail."}));
    EXPECT_EQ(log.Count("load bundle[media] success."), 1);
    EXPECT_FALSE(log.HasPart("already exists"));
}

TEST_F(StartingTheServer, ReleasesWaitingEventsWhenItFails)
{
    const std::string path = collection.Bundle("media").Item("ab").Write();
    std::vector<std::thread> events;
    const SleepyWatchers eager([&] {
        events.emplace_back([&] { RaiseAdded(path); });
        events.emplace_back([&] { RaiseRemoved(path); });
        events.emplace_back([&] { RaiseModified(path); });
    });
    ReadConfig(ConfigFor(collection.Path()));
    EXPECT_THROW(server->initialize(*server), std::out_of_range);
    for (std::thread& event : events) {
        event.join();
    }
    EXPECT_FALSE(log.HasPart("load bundle from ["));
    EXPECT_FALSE(log.HasPart("find bundle["));
}

// ---- the service ----

TEST_F(TheService, IsRegisteredAndRunWithoutALimit)
{
    server.emplace();
    const Fault noLoop(Call::BOLT_EVENT_MGR_RUN, 0);
    server->RunService();
    const ServiceCalls calls = LastServiceCalls();
    EXPECT_EQ(calls.service, "bundlesvr.paas.kov");
    EXPECT_EQ(calls.ops, &OpenServer::m_serverOps);
    EXPECT_EQ(calls.argument, nullptr);
    EXPECT_NE(calls.registeredManager, nullptr);
    EXPECT_EQ(calls.runManager, calls.registeredManager);
    EXPECT_EQ(calls.timeout, -1);
    EXPECT_EQ(log.Messages(), Messages{"bundle server start running..."});
    EXPECT_EQ(log.Records().at(0).level, "INFO");
}

TEST_F(TheService, IsNotRunWithoutAnEventManager)
{
    server.emplace();
    const CallCounter registrations(Call::BOLT_SERVER_REGISTER);
    const Fault fault(Call::BOLT_EVENT_MGR_NEW, 0);
    server->RunService();
    EXPECT_TRUE(log.HasError("bolt_event_mgr_new fail."));
    EXPECT_EQ(log.Messages().size(), 1U);
    EXPECT_EQ(registrations.Count(), 0);
}

TEST_F(TheService, IsNotRunUnregistered)
{
    server.emplace();
    const CallCounter loops(Call::BOLT_EVENT_MGR_RUN);
    for (const int result : {-1, 1}) {
        log.Restart();
        const Fault fault(Call::BOLT_SERVER_REGISTER, result);
        server->RunService();
        EXPECT_TRUE(log.HasError("bolt_server_register fail."));
        EXPECT_EQ(log.Messages().size(), 1U);
    }
    EXPECT_EQ(loops.Count(), 0);
}

TEST_F(TheService, LeavesTheServerWaitingForATerminationWhenItCannotRun)
{
    server.emplace();
    sigset_t before;
    sigset_t termination;
    ::sigemptyset(&termination);
    for (const int signal : {SIGINT, SIGTERM, SIGQUIT}) {
        ::sigaddset(&termination, signal);
    }
    ::pthread_sigmask(SIG_BLOCK, &termination, &before);
    std::atomic<int> status{-1};
    std::atomic<bool> hasReturned{false};
    std::thread main([&] {
        const Fault fault(Call::BOLT_EVENT_MGR_NEW, 0);
        status = server->main({});
        hasReturned = true;
    });
    ASSERT_TRUE(Eventually(PATIENCE, [this] { return log.Has("bolt_event_mgr_new fail."); }));
    std::this_thread::sleep_for(100ms);
    EXPECT_FALSE(hasReturned) << "a server without a service stays up";
    ::kill(::getpid(), SIGTERM);
    main.join();
    EXPECT_EQ(status, 0);
    ::pthread_sigmask(SIG_SETMASK, &before, nullptr);
}

TEST_F(TheService, HandsItsMessagesToTheServer)
{
    EXPECT_EQ(OpenServer::m_serverOps.start, &OpenServer::StartServer);
    EXPECT_EQ(OpenServer::m_serverOps.stop, nullptr);
    EXPECT_EQ(OpenServer::m_protocolOps.connected, nullptr);
    EXPECT_EQ(OpenServer::m_protocolOps.message, &OpenServer::ProcessMsg);
    bolt_server registered{nullptr};
    EXPECT_EQ(OpenServer::StartServer(&registered, nullptr), 0);
    EXPECT_EQ(registered.protocol_ops, &OpenServer::m_protocolOps);
}

TEST_F(TheService, HasOneRequest)
{
    ASSERT_EQ(OpenServer::m_msgHndl.size(), 5U);
    for (std::size_t method = 0; method < 4; ++method) {
        EXPECT_EQ(OpenServer::m_msgHndl[method], nullptr) << method;
    }
    EXPECT_EQ(OpenServer::m_msgHndl[4], &OpenServer::DeleteBundleItem);
}

// ---- requests ----

TEST_F(ARequest, IsRefusedForAnotherUri)
{
    collection.Bundle("media").Write();
    StartUp();
    log.Restart();
    EXPECT_EQ(StatusOf(4, 1, NameField("media")), 400);
    EXPECT_EQ(log.Messages(), (Messages{"receive uri: 1,method: 4", "invalid uri[1] from connect fd[77]"}));
    EXPECT_EQ(log.Records().at(0).level, "INFO");
    EXPECT_EQ(log.Records().at(1).level, "ERROR");
    log.Restart();
    EXPECT_EQ(StatusOf(2, 65535, ""), 400);
    EXPECT_EQ(log.Messages(), (Messages{"receive uri: 65535,method: 2", "invalid uri[65535] from connect fd[77]"}));
    EXPECT_TRUE(Exists(collection / "media"));
}

TEST_F(ARequest, IsRefusedForAnUnknownMethod)
{
    StartUp();
    for (const int method : {0, 5, 6, 127}) {
        log.Restart();
        EXPECT_EQ(StatusOf(static_cast<std::uint8_t>(method), 0, NameField("media")), 400);
        const std::string text = std::to_string(method);
        EXPECT_EQ(log.Messages(),
                  (Messages{"receive uri: 0,method: " + text, "invalid method[" + text + "] from connect fd[77]"}));
        EXPECT_EQ(log.Records().at(1).level, "ERROR");
    }
}

TEST_F(ARequest, IsRefusedForAMethodWithoutAHandler)
{
    StartUp();
    for (const int method : {1, 2, 3}) {
        log.Restart();
        EXPECT_EQ(StatusOf(static_cast<std::uint8_t>(method), 0, NameField("media")), 400);
        const std::string text = std::to_string(method);
        EXPECT_EQ(log.Messages(),
                  (Messages{"receive uri: 0,method: " + text, "not support uri[0].method[" + text + "]"}));
        EXPECT_EQ(log.Records().at(1).level, "ERROR");
    }
}

TEST_F(ARequest, IsRecognisedWithTheResponseFlagSet)
{
    StartUp();
    log.Restart();
    EXPECT_EQ(StatusOf(0x84, 0, NameField("media")), 404);
    EXPECT_TRUE(log.Has("receive uri: 0,method: 4"));
}

TEST_F(ARequest, CanBeAnsweredWithContent)
{
    lumo_message* const msg = lumo_message_new(0);
    lumo_content_add(msg, "request", 7, 0);
    msg->header.kind = 5;
    msg->header.uri = 6;
    TakeSentMessages();
    OpenServer::ReplyMsg(msg, &connection, OpenServer::ReplyMsgInfo{200, "reply", 5});
    lumo_message_put(msg);
    const auto sent = TakeSentMessages();
    ASSERT_EQ(sent.size(), 1U);
    EXPECT_EQ(sent[0].content, "reply");
    EXPECT_EQ(sent[0].header.length, 5);
    EXPECT_EQ(sent[0].header.status, 200);
    EXPECT_EQ(sent[0].header.method, 0x80);
    EXPECT_EQ(sent[0].header.kind, 0);
    EXPECT_EQ(sent[0].header.uri, 0);
}

TEST_F(ARequest, ReturnsItsContentWhenThatIsLongEnough)
{
    lumo_message* const msg = lumo_message_new(0);
    lumo_content_add(msg, "12345678", 8, 0);
    for (const unsigned required : {0U, 7U, 8U}) {
        void* content = nullptr;
        EXPECT_EQ(OpenServer::GetParamFromContent(msg, &connection, &content, required), 0);
        EXPECT_EQ(std::string(static_cast<const char*>(content), 8), "12345678");
    }
    EXPECT_TRUE(log.Messages().empty());
    void* content = nullptr;
    EXPECT_EQ(OpenServer::GetParamFromContent(msg, &connection, &content, 9), -1);
    EXPECT_TRUE(log.HasError("[connect fd77] : invalid content len[8],required content len[9]"));
    lumo_message_put(msg);
}

TEST_F(ADeleteRequest, IsRefusedWithoutContent)
{
    StartUp();
    log.Restart();
    EXPECT_EQ(StatusOf(4, 0, ""), 400);
    EXPECT_TRUE(log.HasError("[connect fd77] : call lumo_content fail.return code[-1]."));
}

TEST_F(ADeleteRequest, IsRefusedWhenItsContentCannotBeRead)
{
    collection.Bundle("media").Write();
    StartUp();
    log.Restart();
    const Fault fault(Call::LUMO_CONTENT, 42);
    EXPECT_EQ(Delete("media"), 400);
    EXPECT_EQ(log.Messages(),
              (Messages{"receive uri: 0,method: 4", "[connect fd77] : call lumo_content fail.return code[42]."}));
    EXPECT_TRUE(Exists(collection / "media"));
}

TEST_F(ADeleteRequest, IsRefusedWithTooShortAContent)
{
    collection.Bundle("media").Write();
    StartUp();
    log.Restart();
    EXPECT_EQ(StatusOf(4, 0, NameField("media").substr(0, 127)), 400);
    EXPECT_EQ(log.Messages(), (Messages{"receive uri: 0,method: 4",
                                        "[connect fd77] : invalid content len[127],required content len[128]"}));
    EXPECT_TRUE(Exists(collection / "media"));
    EXPECT_FALSE(log.HasPart("event"));
}

TEST_F(ADeleteRequest, TakesALongerContent)
{
    collection.Bundle("media").Write();
    StartUp();
    EXPECT_EQ(StatusOf(4, 0, NameField("media") + std::string(1000, 'x')), 200);
    EXPECT_FALSE(Exists(collection / "media"));
}

TEST_F(ADeleteRequest, FindsNoBundleThatIsNotRegistered)
{
    collection.Bundle("media").Write();
    StartUp();
    log.Restart();
    EXPECT_EQ(Delete("Media"), 404);
    EXPECT_EQ(log.Messages(), (Messages{"receive uri: 0,method: 4", "find bundle[Media]...",
                                        "bundle [Media] not found.", "find bundle[Media] fail."}));
    EXPECT_TRUE(log.HasError("find bundle[Media] fail."));
    EXPECT_TRUE(Exists(collection / "media"));
    EXPECT_EQ(Delete(""), 404);
}

TEST_F(ADeleteRequest, TakesANameWithoutANulToTheEndOfTheContent)
{
    StartUp();
    log.Restart();
    const std::string name(128, 'n');
    EXPECT_EQ(StatusOf(4, 0, name), 404);
    EXPECT_TRUE(log.HasError("find bundle[" + name + "] fail."));
}

TEST_F(ADeleteRequest, StopsUnloadsRemovesAndPublishes)
{
    collection.Bundle("media").Uninstall(Noting("uninstall")).Item("app").Write();
    collection.Bundle("media").Uninstall(Noting("uninstall")).Write();
    collection.Bundle("other").Write();
    StartUp();
    Listen();
    log.Restart();
    EXPECT_EQ(Delete("media"), 200);
    const std::string path = collection / "media";
    EXPECT_EQ(
        log.Messages(),
        (Messages{"receive uri: 0,method: 4", "find bundle[media]...", "find bundle done.", "stop bundle[media]...",
                  "bundle[media] state changing[Active] -> [Stopping]", "stop bundle[media] activator...",
                  "bundle process already exit.", "stop bundle[media] activator Done.",
                  "bundle[media] state changing[Stopping] -> [Resolved]", "stop bundle done.",
                  "unload bundle[media]...", "run script[" + ScriptPath("media", "uninstall.sh") + "]...",
                  "run script[" + ScriptPath("media", "uninstall.sh") + "] done.", "unload bundle done.",
                  "success to rm : [" + path + "]."}));
    EXPECT_EQ(Notes(), "uninstall\n");
    EXPECT_FALSE(Exists(path));
    EXPECT_TRUE(Exists(collection / "other"));
    const std::string event = Received();
    ASSERT_EQ(event.size(), 72U);
    EXPECT_STREQ(event.data() + 8, "bundle_service");
    EXPECT_STREQ(event.data() + 24, "app.event.init");
    log.Restart();
    EXPECT_EQ(Delete("media"), 404);
    EXPECT_EQ(Received(), "");
}

TEST_F(ADeleteRequest, IsAnsweredWhenTheRemovalIsWrittenOut)
{
    const std::string path = collection.Bundle("media").Write();
    StartUp();
    std::atomic<int> synced{0};
    const BeforeEach syncing(Call::FSYNC, [&](int fd) {
        ++synced;
        EXPECT_EQ(std::filesystem::read_symlink("/proc/self/fd/" + std::to_string(fd)), collection.Path());
        EXPECT_FALSE(Exists(path));
        EXPECT_TRUE(TakeSentMessages().empty());
    });
    EXPECT_EQ(Delete("media"), 200);
    EXPECT_EQ(synced, 1);
    EXPECT_EQ(Delete("media"), 404);
    EXPECT_EQ(synced, 1);
}

TEST_F(ADeleteRequest, IsAnsweredAfterASecondWhenTheRemovalIsNotWrittenOutByThen)
{
    collection.Bundle("media").Write();
    StartUp();
    std::atomic<bool> hangs{true};
    const BeforeEach syncing(Call::FSYNC, [&](int /*fd*/) { Eventually(PATIENCE, [&] { return !hangs; }); });
    const auto start = Clock::now();
    EXPECT_EQ(Delete("media"), 200);
    EXPECT_GE(Clock::now() - start, 1s);
    EXPECT_LT(Clock::now() - start, PATIENCE / 2);
    EXPECT_TRUE(log.HasInfo("bundle collection dir[" + collection.Path() + "] is not synced yet."));
    hangs = false;
}

TEST_F(ADeleteRequest, SucceedsThoughTheRemovalCannotBeWrittenOut)
{
    collection.Bundle("media").Write();
    StartUp();
    const Fault fault(Call::FSYNC, EIO);
    EXPECT_EQ(Delete("media"), 200);
    EXPECT_TRUE(
        log.HasError("bundle collection dir[" + collection.Path() + "] can not be synced: Input/output error."));
}

TEST_F(ADeleteRequest, IsAnsweredBeforeItsEventIsPublished)
{
    collection.Bundle("media").Write();
    StartUp();
    Listen();
    std::size_t repliesBefore = 0;
    {
        const BeforeEach publishing(Call::SPRINTF_S, [&repliesBefore](int) {
            const auto sent = TakeSentMessages();
            repliesBefore += sent.size();
        });
        const Reply reply = Ask(4, 0, NameField("media"));
        EXPECT_EQ(reply.count, 0) << "a second reply";
    }
    EXPECT_EQ(repliesBefore, 1U);
}

TEST_F(ADeleteRequest, SucceedsWithoutAnEventService)
{
    collection.Bundle("media").Write();
    StartUp();
    EXPECT_EQ(Delete("media"), 200);
    EXPECT_FALSE(Exists(collection / "media"));
    EXPECT_TRUE(log.InOrder({"success to rm : [" + (collection / "media") + "].", publishFailure}));
}

TEST_F(ADeleteRequest, FailsForABundleThatCannotBeStopped)
{
    collection.Bundle("media").Write();
    StartUp();
    const std::string late = collection.Bundle("late").Requires("missing").Write();
    // Loaded, but never started: it has lost its requirement.
    collection.Bundle("missing").Write();
    RaiseAdded(collection / "missing");
    RaiseAdded(late);
    ASSERT_EQ(Delete("late"), 200);
    collection.Bundle("stuck").Write();
    RaiseAdded(collection / "stuck");
    collection.Bundle("stuck").Manifest("[global]\nbundle_name = renamed\nbundle_load_mode = 0\n").Write();
    RaiseModified(collection / "stuck"); // a bundle under a name that is not registered is not to be stopped
    log.Restart();
    Listen();
    EXPECT_EQ(Delete("stuck"), 400);
    EXPECT_TRUE(log.HasError("uninstalling bundle[renamed] failed."));
    EXPECT_TRUE(log.InOrder({"find bundle done.", "stop bundle[renamed]...", "uninstalling bundle[renamed] failed."}));
    EXPECT_FALSE(log.Has("stop bundle done."));
    EXPECT_TRUE(Exists(collection / "stuck"));
    EXPECT_EQ(Received(), "");
}

TEST_F(ADeleteRequest, FailsWhenTheUnloadingDoes)
{
    collection.Bundle("media").Uninstall("#!/bin/sh\n").Write();
    StartUp();
    log.Restart();
    const BeforeEach launch(Call::LAUNCH, [](int) { throw std::runtime_error("unheard of"); });
    EXPECT_EQ(Delete("media"), 400);
    EXPECT_TRUE(log.InOrder({"stop bundle done.", "unload bundle[media]...", "uninstalling bundle[media] failed."}));
    EXPECT_TRUE(Exists(collection / "media"));
}

TEST_F(ADeleteRequest, FailsWhenTheRemovalCannotBeLaunched)
{
    collection.Bundle("media").Write();
    StartUp();
    log.Restart();
    Listen();
    const Fault fault(Call::LAUNCH, EAGAIN);
    EXPECT_EQ(Delete("media"), 400);
    EXPECT_TRUE(log.HasError("remove cmd exception.exception info: [System exception: no launch]."));
    EXPECT_FALSE(log.HasPart("success to rm"));
    EXPECT_EQ(Received(), "");
}

TEST_F(ADeleteRequest, FailsWhenTheRemovalCannotBeWaitedFor)
{
    collection.Bundle("media").Write();
    StartUp();
    log.Restart();
    const Fault fault(Call::WAIT_FOR_PROCESS, ECHILD);
    EXPECT_EQ(Delete("media"), 400);
    EXPECT_TRUE(log.HasError("remove cmd exception.exception info: [System exception: no wait]."));
    EXPECT_FALSE(log.HasPart("success to rm"));
}

TEST_F(ADeleteRequest, SucceedsThoughTheRemovalHasNoGroupOfItsOwn)
{
    collection.Bundle("media").Write();
    StartUp();
    log.Restart();
    const Fault fault(Call::SETPGID, EPERM);
    EXPECT_EQ(Delete("media"), 200);
    EXPECT_TRUE(log.HasPart(" to pgid 0 failed errno Operation not permitted "));
    EXPECT_TRUE(log.HasPart("setpgid "));
    EXPECT_FALSE(Exists(collection / "media"));
}

TEST_F(ADeleteRequest, FailsInAProgramThatIsNotTheServer)
{
    class Other : public Poco::Util::Application {};
    const Other other;
    EXPECT_EQ(Delete("media"), 400);
    EXPECT_TRUE(log.HasError("request fail.exception info: [std::bad_cast]."));
}

TEST_F(ADeleteRequest, IsAnsweredWithFailureAfterAnyException)
{
    collection.Bundle("media").Write();
    StartUp();
    const BeforeEach launch(Call::LAUNCH, [](int) { throw std::runtime_error("unheard of"); });
    EXPECT_EQ(Delete("media"), 400);
    EXPECT_TRUE(log.HasError("request fail.exception info: [unheard of]."));
}

TEST_F(ADeleteRequest, LeavesTheLaterRemovalEventWithNothingToFind)
{
    const std::string path = collection.Bundle("media").Write();
    StartUp();
    ASSERT_EQ(Delete("media"), 200);
    log.Restart();
    RaiseRemoved(path);
    EXPECT_TRUE(log.HasError("find bundle[" + path + "] fail."));
    EXPECT_FALSE(log.HasPart("uninstalling"));
}

// ---- the events of the collection ----

TEST_F(AnAddedItem, IsLoadedResolvedAndStarted)
{
    StartUp();
    const std::string path = collection.Bundle("media").Write();
    log.Restart();
    const auto before = Clock::now();
    RaiseAdded(path);
    EXPECT_GE(Clock::now() - before, 1s) << "a copy may still be going on";
    EXPECT_TRUE(log.InOrder(
        {"dir item add event happen.", "add a new bundle dir.", "load bundle from [" + path + "]...",
         "load bundle[media] success.", "load bundle[media] done.", "resolve bundle[media]...",
         "bundle[media] state changing[Installed] -> [Resolved]", "resolve bundle done.", "start bundle[media]...",
         "bundle[media] state changing[Starting] -> [Active]", "start bundle done."}));
    EXPECT_EQ(log.Messages().front(), "dir item add event happen.");
    EXPECT_EQ(log.Messages().back(), "start bundle done.");
    for (const LogRecord& record : log.Records()) {
        EXPECT_EQ(record.level, "INFO") << record.message;
    }
}

TEST_F(AnAddedItem, IsSkippedWhenItIsNoDirectory)
{
    StartUp();
    WriteFile(collection / "file", "");
    std::filesystem::create_symlink(collection / "nowhere", collection / "dangling");
    for (const std::string& name : {std::string("file"), std::string("dangling"), std::string("vanished")}) {
        log.Restart();
        RaiseAdded(collection / name);
        EXPECT_EQ(log.Messages(), Messages{"dir item add event happen."}) << name;
    }
}

TEST_F(AnAddedItem, IsRefusedWithARecord)
{
    StartUp();
    const std::string path = collection.Bundle("media").Mode("7").Write();
    log.Restart();
    RaiseAdded(path);
    EXPECT_TRUE(log.InOrder({"load bundle from [" + path + "]...", "create bundle activator fail.",
                             "load bundle from [" + path + "] fail."}));
    EXPECT_TRUE(log.HasError("load bundle from [" + path + "] fail."));
}

TEST_F(AnAddedItem, FailsAloneForAnyExceptionOfItsManifest)
{
    StartUp();
    const std::string broken = collection.Bundle("broken").NoManifest().Write();
    const std::string tooShort = collection.Bundle("short").Item("ab").Write();
    for (const std::string& path : {broken, tooShort}) {
        log.Restart();
        RaiseAdded(path);
        EXPECT_TRUE(log.HasError("failed to load bundle from [" + path + "].")) << path;
        EXPECT_FALSE(log.HasPart("resolve bundle")) << path;
    }
}

TEST_F(AnAddedItem, IsUnloadedAgainWhenItCannotBeResolved)
{
    StartUp();
    const std::string path = collection.Bundle("media").Requires("missing").Uninstall(Noting("uninstall")).Write();
    log.Restart();
    RaiseAdded(path);
    EXPECT_EQ(log.Messages().back(), "run script[" + ScriptPath("media", "uninstall.sh") + "] done.");
    EXPECT_TRUE(log.InOrder({"resolve bundle[media]...", "resolve bundle[media] dependencies...",
                             "run script[" + ScriptPath("media", "uninstall.sh") + "]..."}));
    EXPECT_FALSE(log.Has("resolve bundle done."));
    for (const LogRecord& record : log.Records()) {
        EXPECT_EQ(record.level, "INFO") << "a record of its own: " << record.message;
    }
    EXPECT_EQ(Notes(), "uninstall\n");
    RaiseRemoved(path);
    EXPECT_TRUE(log.Has("find bundle[" + path + "] fail.")) << "left registered";
}

TEST_F(AnAddedItem, IsUnloadedAgainWhenItCannotBeStarted)
{
    StartUp();
    const std::string path =
        collection.Bundle("media").ThreadMode().Item("noLibrary").Uninstall(Noting("uninstall")).Write();
    log.Restart();
    RaiseAdded(path);
    EXPECT_TRUE(log.InOrder({"start bundle[media]...", "bundle[media] state changing[Starting] -> [Resolved]",
                             "run script[" + ScriptPath("media", "uninstall.sh") + "] done."}));
    EXPECT_FALSE(log.Has("start bundle done."));
    EXPECT_EQ(Notes(), "uninstall\n");
}

TEST_F(AnAddedItem, LeavesTheServerRunningWhenItsUnloadingThrowsToo)
{
    StartUp();
    const std::string path = collection.Bundle("media").Requires("missing").Uninstall("#!/bin/sh\n").Write();
    const BeforeEach launch(Call::LAUNCH, [](int) { throw std::runtime_error("unheard of"); });
    RaiseAdded(path);
    EXPECT_TRUE(log.HasError("failed bundle[media] is not unloaded :unheard of"));
}

// What start-up has loaded may have been half of a copy: with the rest of it, it is started anew.
TEST_F(AnAddedItem, IsRestartedAndNotLoadedASecondTime)
{
    const std::string path = collection.Bundle("media").Install(Noting("install")).Write();
    StartUp();
    log.Restart();
    RaiseAdded(path);
    EXPECT_TRUE(log.InOrder({"dir item add event happen.", "bundle dir[" + path + "] is loaded already.",
                             "find bundle[" + path + "]...", "find bundle done.", "stop bundle[media]...",
                             "stop bundle done.", "start bundle[media]...",
                             "bundle[media] state changing[Starting] -> [Active]", "start bundle done."}));
    EXPECT_FALSE(log.Has("add a new bundle dir."));
    EXPECT_FALSE(log.Has("bundle[media] already exists."));
    EXPECT_EQ(Notes(), "install\n");
}

TEST_F(ARemovedItem, IsStoppedAndUnloaded)
{
    const std::string path = collection.Bundle("media").Write();
    StartUp();
    std::filesystem::remove_all(path);
    log.Restart();
    RaiseRemoved(path);
    EXPECT_EQ(
        log.Messages(),
        (Messages{"dir item remove event happen.", "remove a bundle dir.", "find bundle[" + path + "]...",
                  "find bundle done.", "stop bundle[media]...", "bundle[media] state changing[Active] -> [Stopping]",
                  "stop bundle[media] activator...", "bundle process already exit.",
                  "stop bundle[media] activator Done.", "bundle[media] state changing[Stopping] -> [Resolved]",
                  "stop bundle done.", "unload bundle[media]...", "unload bundle done."}));
    log.Restart();
    RaiseRemoved(path);
    EXPECT_TRUE(log.Has("find bundle[" + path + "] fail."));
}

TEST_F(ARemovedItem, ChangesNothingWhenItIsNoBundle)
{
    collection.Bundle("media").Write();
    StartUp();
    log.Restart();
    const std::string path = collection / "nowhere";
    RaiseRemoved(path);
    EXPECT_EQ(log.Messages(),
              (Messages{"dir item remove event happen.", "remove a bundle dir.", "find bundle[" + path + "]...",
                        "bundle with storage path[" + path + "] not found.", "find bundle[" + path + "] fail."}));
    EXPECT_TRUE(log.HasError("find bundle[" + path + "] fail."));
}

TEST_F(ARemovedItem, StaysLoadedWhenItCannotBeStopped)
{
    const std::string path = collection.Bundle("media").Write();
    StartUp();
    collection.Bundle("media").Manifest("[global]\nbundle_name = renamed\nbundle_load_mode = 0\n").Write();
    RaiseModified(path);
    log.Restart();
    RaiseRemoved(path);
    EXPECT_TRUE(log.HasError("uninstalling bundle[renamed] failed."));
    EXPECT_EQ(log.Messages().back(), "uninstalling bundle[renamed] failed.");
    EXPECT_FALSE(log.HasPart("unload bundle"));
}

TEST_F(AModifiedItem, IsUpdatedStoppedAndAfterASecondStarted)
{
    const std::string path = collection.Bundle("media").Update(Noting("update")).Write();
    StartUp();
    log.Restart();
    const auto before = Clock::now();
    RaiseModified(path);
    EXPECT_GE(Clock::now() - before, 1s);
    EXPECT_TRUE(log.InOrder(
        {"dir item modified event happen.", "update a bundle dir.", "find bundle[" + path + "]...", "find bundle done.",
         "bundle name ------> [media]", "run script[" + ScriptPath("media", "update.sh") + "] done.",
         "stop bundle[media]...", "bundle[media] state changing[Stopping] -> [Resolved]", "stop bundle done.",
         "start bundle[media]...", "bundle[media] state changing[Starting] -> [Active]", "start bundle done."}));
    EXPECT_EQ(log.Messages().back(), "start bundle done.");
    EXPECT_EQ(Notes(), "update\n");
}

TEST_F(AModifiedItem, PausesBetweenStopAndStart)
{
    const std::string path = collection.Bundle("media").Write();
    StartUp();
    std::thread event([&] { RaiseModified(path); });
    ASSERT_TRUE(Eventually(PATIENCE, [this] { return log.Has("stop bundle done."); }));
    const auto stopped = Clock::now();
    ASSERT_TRUE(Eventually(PATIENCE, [this] { return log.Count("start bundle[media]...") == 2; }));
    EXPECT_GE(Clock::now() - stopped, 900ms) << "the stop was seen a moment after it was logged";
    event.join();
}

TEST_F(AModifiedItem, ChangesNothingWhenItIsNoBundle)
{
    StartUp();
    log.Restart();
    const std::string path = collection / "nowhere";
    RaiseModified(path);
    EXPECT_EQ(log.Messages(),
              (Messages{"dir item modified event happen.", "update a bundle dir.", "find bundle[" + path + "]...",
                        "bundle with storage path[" + path + "] not found.", "find bundle[" + path + "] fail."}));
}

TEST_F(AModifiedItem, KeepsRunningWhenItsNewManifestIsBroken)
{
    const std::string path = collection.Bundle("media").Update(Noting("update")).Write();
    StartUp();
    WriteFile(path + "/BundleManifest.ini", "[global]\nbundle_name = newmedia\n");
    log.Restart();
    RaiseModified(path);
    EXPECT_TRUE(log.InOrder({"find bundle done.", "parse bundle manifest fail.", "update bundle[media] failed."}));
    EXPECT_TRUE(log.HasError("update bundle[media] failed."));
    EXPECT_FALSE(log.HasPart("state changing"));
    EXPECT_EQ(Notes(), "");
}

TEST_F(AModifiedItem, ShowsItsNewNameInTheRecordsThatFollow)
{
    const std::string path = collection.Bundle("media").Write();
    StartUp();
    collection.Bundle("media").Manifest("[global]\nbundle_name = renamed\nbundle_load_mode = 0\n").Write();
    log.Restart();
    RaiseModified(path);
    EXPECT_TRUE(log.Has("stop bundle[renamed]..."));
    EXPECT_TRUE(log.HasError("update bundle[renamed] failed."));
}

TEST_F(AModifiedItem, IsNotStoppedWhenItHasVanishedMeanwhile)
{
    const std::string path = collection.Bundle("media").Write();
    StartUp();
    std::filesystem::remove_all(path);
    log.Restart();
    RaiseModified(path);
    EXPECT_TRUE(log.HasError("update bundle[media] failed."));
    EXPECT_FALSE(log.HasPart("state changing"));
}
