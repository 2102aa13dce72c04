#include "bundle_server.h"

#include "bundle_log.h"

#include <bundle_service.h>

#include <Poco/Delegate.h>
#include <Poco/Logger.h>
#include <Poco/Util/HelpFormatter.h>
#include <Poco/Util/Option.h>
#include <Poco/Util/OptionCallback.h>

#include <cstdlib>
#include <iostream>

namespace SystemServer {

using Poco::Util::Option;
using Poco::Util::OptionCallback;

const bolt_server_ops BundleServer::m_serverOps = {BundleServer::StartServer, nullptr};
const bolt_protocol_ops BundleServer::m_protocolOps = {nullptr, BundleServer::ProcessMsg};
const std::array<BundleServer::MsgHandler, 5> BundleServer::m_msgHndl = {
    nullptr, nullptr, nullptr, nullptr, BundleServer::DeleteBundleItem,
};
static_assert(BundleService::METHOD_DELETE_BUNDLE == 4, "the position of its handler in the table");

// The watcher comes first: it joins its thread, which uses the manager. The manager deliberately stops and unloads
// nothing: the bundles' processes outlive the server.
BundleServer::~BundleServer()
{
    m_dirWatcher.reset();
    m_bundleManager.reset();
}

void BundleServer::RethrowStartupFailure() const
{
    if (m_startupFailure) {
        std::rethrow_exception(m_startupFailure);
    }
}

void BundleServer::defineOptions(Poco::Util::OptionSet& options)
{
    ServerApplication::defineOptions(options);
    options.addOption(Option("help", "h", "display help information on command line arguments")
                          .required(false)
                          .repeatable(false)
                          .callback(OptionCallback<BundleServer>(this, &BundleServer::HandleHelp)));
    options.addOption(Option("config-file", "f", "load configuration data from a file")
                          .required(true)
                          .repeatable(false)
                          .argument("file", true)
                          .callback(OptionCallback<BundleServer>(this, &BundleServer::HandleConfig)));
}

void BundleServer::HandleHelp(const std::string& /*name*/, const std::string& /*value*/)
{
    m_helpRequested = true;
    DisplayHelp();
    stopOptionsProcessing();
    std::exit(0); // NOLINT(concurrency-mt-unsafe): options are handled before the first thread
}

void BundleServer::DisplayHelp()
{
    Poco::Util::HelpFormatter formatter(options());
    formatter.setCommand(commandName());
    formatter.setUsage("OPTIONS");
    formatter.setHeader("a bundles management platform.");
    formatter.format(std::cout);
}

void BundleServer::HandleConfig(const std::string& /*name*/, const std::string& value)
{
    BUNDLE_INFO("load config from [%s]...", value.c_str());
    loadConfiguration(value, 0);
    BUNDLE_INFO("load config done.");
}

void BundleServer::initialize(Application& self)
{
    try {
        StartUp();
        // The bundles start before the framework's subsystems, so that a failure of a subsystem cannot keep them from
        // starting.
        ServerApplication::initialize(self);
        BUNDLE_INFO("init bundle server done.");
    } catch (...) {
        m_startupFailure = std::current_exception();
        logger().setChannel(nullptr); // main() already prints the error
        m_follower.OpenGate(nullptr);
        throw;
    }
}

void BundleServer::StartUp()
{
    BUNDLE_INFO("init bundle server...");
    std::string collectionDir = config().getString("global.bundle_collection_dir");
    BUNDLE_INFO("bundle collection dir -> [%s]", collectionDir.c_str());
    WatchCollection(collectionDir);

    BUNDLE_INFO("create BundleFactory...");
    const std::shared_ptr<BundleFactory> bundleFactory = std::make_shared<BundleStorageDirFactory>(
        [this](const Bundle& bundle) { m_follower.AcceptWritesOfScript(bundle); });
    BUNDLE_INFO("create BundleFactory done.");
    BUNDLE_INFO("create BundleManager...");
    m_bundleManager = std::make_shared<BundleManager>(bundleFactory);
    BUNDLE_INFO("create BundleManager done.");

    BUNDLE_INFO("LoadAllBundles...");
    m_bundleManager->LoadAllBundles(collectionDir);
    BUNDLE_INFO("LoadAllBundles done.");
    BUNDLE_INFO("ResolveAllBundles...");
    m_bundleManager->ResolveAllBundles();
    BUNDLE_INFO("ResolveAllBundles done.");
    BUNDLE_INFO("StartAllBundles...");
    m_bundleManager->StartAllBundles();
    BUNDLE_INFO("StartAllBundles done.");
    m_follower.OpenGate(m_bundleManager);
}

// The watcher is made only here.
void BundleServer::WatchCollection(const std::string& collectionDir)
{
    const auto watcher = std::make_shared<BundleDirWatcher>(collectionDir);
    m_follower.SetWatcher(*watcher);
    m_removal = std::make_unique<BundleRemoval>(*watcher, collectionDir);
    m_dirWatcher = watcher;
    m_dirWatcher->itemAdded += Poco::delegate(this, &BundleServer::OnItemAdded);
    m_dirWatcher->itemRemoved += Poco::delegate(this, &BundleServer::OnItemRemoved);
    m_dirWatcher->itemModified += Poco::delegate(this, &BundleServer::OnItemModified);
}

int BundleServer::main(const std::vector<std::string>& /*args*/)
{
    if (m_helpRequested) {
        return EXIT_OK;
    }
    m_startUpSignals.LeaveToLoop();
    RunService();
    // Waits also without a service: the bundles are still supervised and the directory is still followed.
    waitForTerminationRequest();
    return EXIT_OK;
}

void BundleServer::RunService()
{
    bolt_event_mgr* const mgr = bolt_event_mgr_new(0);
    if (mgr == nullptr) {
        BUNDLE_ERROR("bolt_event_mgr_new fail.");
        return;
    }
    if (bolt_server_register(BundleService::SERVICE_NAME, mgr, &m_serverOps, nullptr) != 0) {
        BUNDLE_ERROR("bolt_server_register fail.");
        return;
    }
    BUNDLE_INFO("bundle server start running...");
    bolt_event_mgr_run(mgr, -1);
}

int BundleServer::StartServer(bolt_server* server, void* /*arg*/)
{
    server->protocol_ops = &m_protocolOps;
    return 0;
}

void BundleServer::OnItemAdded(const Poco::DirectoryWatcher::DirectoryEvent& event)
{
    m_follower.OnAdded(event.item.path());
}

void BundleServer::OnItemRemoved(const Poco::DirectoryWatcher::DirectoryEvent& event)
{
    m_follower.OnRemoved(event.item.path());
}

void BundleServer::OnItemModified(const Poco::DirectoryWatcher::DirectoryEvent& event)
{
    m_follower.OnModified(event.item.path());
}

} // namespace SystemServer
