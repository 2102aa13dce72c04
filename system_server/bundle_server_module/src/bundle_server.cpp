#include "bundle_server.h"

#include "bundle_log.h"
#include "child_process.h"
#include "directory.h"

#include <algapp_bolt_comm.h>
#include <bundle_service.h>

#include <Poco/Delegate.h>
#include <Poco/Exception.h>
#include <Poco/Logger.h>
#include <Poco/Process.h>
#include <Poco/Util/HelpFormatter.h>
#include <Poco/Util/Option.h>
#include <Poco/Util/OptionCallback.h>

#include <chrono>
#include <cstdlib>
#include <cstring>
#include <iostream>
#include <thread>

namespace SystemServer {

using BundleService::METHOD_DELETE_BUNDLE;
using BundleService::METHOD_MASK;
using BundleService::NAME_FIELD_SIZE;
using BundleService::RESPONSE_FLAG;
using BundleService::STATUS_BAD_REQUEST;
using BundleService::STATUS_NOT_FOUND;
using BundleService::STATUS_OK;
using DirectoryEvent = Poco::DirectoryWatcher::DirectoryEvent;
using Poco::Util::Option;
using Poco::Util::OptionCallback;

const bolt_server_ops BundleServer::m_serverOps = {BundleServer::StartServer, nullptr};
const bolt_protocol_ops BundleServer::m_protocolOps = {nullptr, BundleServer::ProcessMsg};
const std::array<BundleServer::MsgHandler, 5> BundleServer::m_msgHndl = {
    nullptr, nullptr, nullptr, nullptr, BundleServer::DeleteBundleItem,
};
static_assert(METHOD_DELETE_BUNDLE == 4, "the position of its handler in the table");

namespace {

// Goes before the error record of a step that failed, which names the object but not the cause.
void LogReason(const std::exception& e)
{
    BUNDLE_INFO("exception info: [%s].", ReasonOf(e).c_str());
}

} // namespace

void PublishDeleteMsg()
{
    PublishEvent("bundle_service", "app.event.init");
}

// The watcher first: it joins its thread, which uses the manager. The manager stops and unloads nothing, deliberately:
// what the bundles run outlives the server.
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
        // The bundles run before the framework's subsystems are set up: nothing that could fail there keeps them from
        // it.
        ServerApplication::initialize(self);
        BUNDLE_INFO("init bundle server done.");
    } catch (...) {
        m_startupFailure = std::current_exception();
        logger().setChannel(nullptr); // the process entry tells what it was, and once is enough
        try {
            m_gate.set_value(nullptr);
        } catch (const std::future_error&) { // open already: what failed came after the start of the bundles
        }
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
    const std::shared_ptr<BundleFactory> bundleFactory =
        std::make_shared<BundleStorageDirFactory>([this](const std::string& path) { AcceptWritesOfScript(path); });
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
    m_gate.set_value(m_bundleManager);
}

// The one place where the watcher is made.
void BundleServer::WatchCollection(const std::string& collectionDir)
{
    m_gateOpen = m_gate.get_future().share();
    const auto watcher = std::make_shared<BundleDirWatcher>(collectionDir);
    m_changes = watcher.get();
    m_dirWatcher = watcher;
    m_dirWatcher->itemAdded += Poco::delegate(this, &BundleServer::OnItemAdded);
    m_dirWatcher->itemRemoved += Poco::delegate(this, &BundleServer::OnItemRemoved);
    m_dirWatcher->itemModified += Poco::delegate(this, &BundleServer::OnItemModified);
}

// What a script has written in its bundle is no change that anybody has made. What the watcher is not told, for want of
// memory, costs a needless update.
void BundleServer::AcceptWritesOfScript(const std::string& path) const
{
    try {
        m_changes->AcceptChanges(path);
    } catch (const std::exception& e) {
        BUNDLE_ERROR("accept changes of [%s] fail. exception info: [%s].", path.c_str(), ReasonOf(e).c_str());
    }
}

int BundleServer::main(const std::vector<std::string>& /*args*/)
{
    if (m_helpRequested) {
        return EXIT_OK;
    }
    RunService();
    // Also when there was no service to run: the bundles are still supervised and the directory followed.
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

void BundleServer::ProcessMsg(lumo_message* msg, bolt_connection* conn)
{
    const ReplyMsgInfo badRequest{STATUS_BAD_REQUEST, nullptr, 0};
    const unsigned uri = msg->header.uri;
    const unsigned method = msg->header.method & METHOD_MASK;
    BUNDLE_INFO("receive uri: %d,method: %d", static_cast<int>(uri), static_cast<int>(method));
    if (uri != BundleService::URI) {
        BUNDLE_ERROR("invalid uri[%u] from connect fd[%d]", uri, conn->fd);
        ReplyMsg(msg, conn, badRequest);
        return;
    }
    if (method == 0 || method >= m_msgHndl.size()) {
        BUNDLE_ERROR("invalid method[%u] from connect fd[%d]", method, conn->fd);
        ReplyMsg(msg, conn, badRequest);
        return;
    }
    if (m_msgHndl[method] == nullptr) {
        BUNDLE_ERROR("not support uri[%u].method[%u]", uri, method);
        ReplyMsg(msg, conn, badRequest);
        return;
    }
    m_msgHndl[method](msg, conn);
}

void BundleServer::ReplyMsg(lumo_message* msg, bolt_connection* conn, const ReplyMsgInfo& info)
{
    lumo_header_clear(msg);
    lumo_content_clear(msg);
    if (info.contentLen != 0) {
        lumo_content_add(msg, info.content, static_cast<int>(info.contentLen), 0);
    }
    msg->header.status = info.retCode;
    msg->header.method = static_cast<std::uint8_t>(msg->header.method | RESPONSE_FLAG);
    lumo_message_async_send(msg, conn, 0);
}

int BundleServer::GetParamFromContent(lumo_message* msg, bolt_connection* conn, void** param, unsigned required)
{
    int len = 0;
    const int result = lumo_content(msg, param, &len);
    if (result != 0) {
        BUNDLE_ERROR("[connect fd%d] : call lumo_content fail.return code[%d].", conn->fd, result);
        return -1;
    }
    if (len < 0 || static_cast<unsigned>(len) < required) {
        BUNDLE_ERROR("[connect fd%d] : invalid content len[%d],required content len[%d]", conn->fd, len,
                     static_cast<int>(required));
        return -1;
    }
    return 0;
}

void BundleServer::DeleteBundleItem(lumo_message* msg, bolt_connection* conn)
{
    ReplyMsgInfo reply{STATUS_BAD_REQUEST, nullptr, 0};
    void* content = nullptr;
    if (GetParamFromContent(msg, conn, &content, NAME_FIELD_SIZE) == 0) {
        // A name without a NUL ends with the content.
        reply.retCode = DeleteBundle(static_cast<const char*>(content), msg->header.length);
    }
    ReplyMsg(msg, conn, reply);
    if (reply.retCode == STATUS_OK) {
        PublishDeleteMsg();
    }
}

// Whatever goes wrong, a request ends in a status: exactly one reply follows from it.
std::uint16_t BundleServer::DeleteBundle(const char* content, std::size_t length)
{
    try {
        const std::string name(content, strnlen(content, length));
        const auto& server = dynamic_cast<BundleServer&>(Application::instance());
        BUNDLE_INFO("find bundle[%s]...", name.c_str());
        const std::shared_ptr<Bundle> bundle = server.m_bundleManager->FindBundleByName(name);
        if (!bundle) {
            BUNDLE_ERROR("find bundle[%s] fail.", name.c_str());
            return STATUS_NOT_FOUND;
        }
        BUNDLE_INFO("find bundle done.");
        if (!StopAndUnload(*server.m_bundleManager, bundle)) {
            return STATUS_BAD_REQUEST;
        }
        return RemoveBundleDirectory(bundle->GetStorage()->GetRootPath()) ? STATUS_OK : STATUS_BAD_REQUEST;
    } catch (const std::exception& e) {
        BUNDLE_ERROR("request fail.exception info: [%s].", e.what());
        return STATUS_BAD_REQUEST;
    }
}

bool BundleServer::StopAndUnload(BundleManager& manager, const std::shared_ptr<Bundle>& bundle)
{
    const std::string name = NameOf(*bundle);
    try {
        BUNDLE_INFO("stop bundle[%s]...", name.c_str());
        manager.StopBundle(bundle);
        BUNDLE_INFO("stop bundle done.");
        BUNDLE_INFO("unload bundle[%s]...", name.c_str());
        manager.UnloadBundle(bundle);
        BUNDLE_INFO("unload bundle done.");
        return true;
    } catch (const std::exception& e) {
        LogReason(e);
        BUNDLE_ERROR("uninstalling bundle[%s] failed.", name.c_str());
        return false;
    }
}

bool BundleServer::RemoveBundleDirectory(const std::string& path)
{
    try {
        const GroupLeader remover = LaunchInOwnGroup("rm", {"-rf", path});
        if (remover.groupError != 0) {
            BUNDLE_ERROR("setpgid %d to pgid %d failed errno %s ", remover.process.id(), 0,
                         std::strerror(remover.groupError));
        }
        remover.process.wait();
        BUNDLE_INFO("success to rm : [%s].", path.c_str());
        return true;
    } catch (const Poco::Exception& e) {
        BUNDLE_ERROR("remove cmd exception.exception info: [%s].", e.displayText().c_str());
        return false;
    }
}

// The handlers run on the watcher's thread. Nothing leaves them but what they lack memory for, which the watcher
// records.

void BundleServer::OnItemAdded(const DirectoryEvent& event)
{
    BUNDLE_INFO("dir item add event happen.");
    if (!IsDirectory(event.item)) {
        return;
    }
    std::this_thread::sleep_for(std::chrono::seconds(1)); // a copy may still be going on
    const std::string& path = event.item.path();
    const auto manager = ManagerAtGate();
    if (!manager) {
        return;
    }
    if (manager->LoadedPaths().count(path) != 0) {
        // It came while start-up read the collection, which may have found half of it.
        BUNDLE_INFO("bundle dir[%s] is loaded already.", path.c_str());
        if (const std::shared_ptr<Bundle> loaded = FindChanged(*manager, path)) {
            UpdateAndRestart(*manager, loaded);
        }
        return;
    }
    if (const std::shared_ptr<Bundle> bundle = LoadAdded(*manager, path)) {
        StartAdded(*manager, bundle);
    }
}

std::shared_ptr<Bundle> BundleServer::LoadAdded(BundleManager& manager, const std::string& path)
{
    try {
        BUNDLE_INFO("add a new bundle dir.");
        BUNDLE_INFO("load bundle from [%s]...", path.c_str());
        m_changes->AcceptChanges(path); // what has come since the event is loaded with the rest
        std::shared_ptr<Bundle> bundle = manager.LoadBundle(path);
        if (!bundle) {
            BUNDLE_ERROR("load bundle from [%s] fail.", path.c_str());
        }
        return bundle;
    } catch (const std::exception& e) {
        LogReason(e);
        BUNDLE_ERROR("failed to load bundle from [%s].", path.c_str());
        return nullptr;
    }
}

void BundleServer::StartAdded(BundleManager& manager, const std::shared_ptr<Bundle>& bundle)
{
    try {
        const std::string name = NameOf(*bundle);
        BUNDLE_INFO("load bundle[%s] done.", name.c_str());
        BUNDLE_INFO("resolve bundle[%s]...", name.c_str());
        manager.ResolveBundle(bundle);
        BUNDLE_INFO("resolve bundle done.");
        BUNDLE_INFO("start bundle[%s]...", name.c_str());
        manager.StartBundle(bundle);
        BUNDLE_INFO("start bundle done.");
    } catch (const std::exception&) {
        // The unloading is the answer, in the log too. It can be refused: a request may have dealt with the bundle.
        try {
            manager.UnloadBundle(bundle);
        } catch (const std::exception& e) {
            BUNDLE_ERROR("failed bundle[%s] is not unloaded :%s", bundle->GetManifest()->GetBundleName().c_str(),
                         ReasonOf(e).c_str());
        }
    }
}

void BundleServer::OnItemRemoved(const DirectoryEvent& event)
{
    BUNDLE_INFO("dir item remove event happen.");
    BUNDLE_INFO("remove a bundle dir.");
    const auto manager = ManagerAtGate();
    const std::shared_ptr<Bundle> bundle = manager ? FindChanged(*manager, event.item.path()) : nullptr;
    if (bundle) {
        StopAndUnload(*manager, bundle);
    }
}

void BundleServer::OnItemModified(const DirectoryEvent& event)
{
    BUNDLE_INFO("dir item modified event happen.");
    BUNDLE_INFO("update a bundle dir.");
    const auto manager = ManagerAtGate();
    if (!manager) {
        return;
    }
    if (const std::shared_ptr<Bundle> bundle = FindChanged(*manager, event.item.path())) {
        UpdateAndRestart(*manager, bundle);
    } else {
        m_changes->OfferAgain(event.item.path()); // what could not be loaded, resolved or started may be mended now
    }
}

std::shared_ptr<Bundle> BundleServer::FindChanged(BundleManager& manager, const std::string& path)
{
    BUNDLE_INFO("find bundle[%s]...", path.c_str());
    std::shared_ptr<Bundle> bundle = manager.FindBundleByPath(path);
    if (bundle) {
        BUNDLE_INFO("find bundle done.");
    } else {
        BUNDLE_ERROR("find bundle[%s] fail.", path.c_str());
    }
    return bundle;
}

// The update comes before the stop, so a manifest that does not parse leaves the old bundle running. Stopping only
// kills; the pause after it lets the monitor reap the dead before the start puts new children beside them.
void BundleServer::UpdateAndRestart(BundleManager& manager, const std::shared_ptr<Bundle>& bundle)
{
    try {
        bundle->Update();
        const std::string name = NameOf(*bundle);
        BUNDLE_INFO("stop bundle[%s]...", name.c_str());
        manager.StopBundle(bundle);
        BUNDLE_INFO("stop bundle done.");
        std::this_thread::sleep_for(std::chrono::seconds(1));
        BUNDLE_INFO("start bundle[%s]...", name.c_str());
        manager.StartBundle(bundle);
        BUNDLE_INFO("start bundle done.");
    } catch (const std::exception& e) {
        LogReason(e);
        BUNDLE_ERROR("update bundle[%s] failed.", bundle->GetManifest()->GetBundleName().c_str());
    }
}

} // namespace SystemServer
