#ifndef BUNDLE_SERVER_H
#define BUNDLE_SERVER_H

#include "bundle_dir_watcher.h"
#include "bundle_manager.h"
#include "directory_sync.h"
#include "start_up_signals.h"

#include <Poco/DirectoryWatcher.h>
#include <Poco/Util/OptionSet.h>
#include <Poco/Util/ServerApplication.h>

#include <bolt.h>
#include <lumo.h>

#include <array>
#include <cstddef>
#include <cstdint>
#include <exception>
#include <future>
#include <memory>
#include <set>
#include <string>
#include <vector>

namespace SystemServer {

/// Publishes that a bundle has been deleted. Any thread; a failure is only logged.
void PublishDeleteMsg();

/// The server: command line, configuration, start-up, the request service on the main thread and the events of the
/// collection directory on the watcher's. One object a process. It stops nothing when it ends: the bundles' processes
/// and threads are left as they are.
class BundleServer : public Poco::Util::ServerApplication {
public:
    BundleServer() = default;
    ~BundleServer() override;

    /// The framework keeps what start-up throws to itself and makes run() return its configuration error.
    /// @throws what initialize has thrown; returns when it has not
    void RethrowStartupFailure() const;

protected:
    using MsgHandler = void (*)(lumo_message*, bolt_connection*);

    /// A reply to a request.
    struct ReplyMsgInfo {
        std::uint16_t retCode;
        const void* content;
        std::uint32_t contentLen; ///< 0: no content
    };

    /// Loads, resolves and starts the collection.
    /// @throws Poco::NotFoundException the configuration lacks "global.bundle_collection_dir"
    /// @throws what the watcher and the manager throw
    void initialize(Application& self) override;
    void defineOptions(Poco::Util::OptionSet& options) override;
    int main(const std::vector<std::string>& args) override;

    void HandleHelp(const std::string& name, const std::string& value);
    void HandleConfig(const std::string& name, const std::string& value);
    void DisplayHelp();

    void RunService();
    static int StartServer(bolt_server* server, void* arg);
    static void ProcessMsg(lumo_message* msg, bolt_connection* conn);
    static void ReplyMsg(lumo_message* msg, bolt_connection* conn, const ReplyMsgInfo& info);
    /// Points param at the request's content. Returns 0, or -1 with an error record when there are fewer than required
    /// bytes of it.
    static int GetParamFromContent(lumo_message* msg, bolt_connection* conn, void** param, unsigned required);
    static void DeleteBundleItem(lumo_message* msg, bolt_connection* conn);

    void OnItemAdded(const Poco::DirectoryWatcher::DirectoryEvent& event);
    void OnItemRemoved(const Poco::DirectoryWatcher::DirectoryEvent& event);
    void OnItemModified(const Poco::DirectoryWatcher::DirectoryEvent& event);

    static const bolt_server_ops m_serverOps;
    static const bolt_protocol_ops m_protocolOps;
    static const std::array<MsgHandler, 5> m_msgHndl; ///< by method; empty where there is no such request

private:
    void StartUp();
    void WatchCollection(const std::string& collectionDir);
    void AcceptWritesOfScript(const Bundle& bundle) const;
    std::shared_ptr<BundleManager> ManagerAtGate() const { return m_gateOpen.get(); }

    static std::uint16_t DeleteBundle(const char* content, std::size_t length);
    static bool StopAndRemove(const BundleServer& server, const std::shared_ptr<Bundle>& bundle);
    static bool StopAndUnload(BundleManager& manager, const std::shared_ptr<Bundle>& bundle);
    static bool RemoveBundleDirectory(const std::string& path, BundleDirWatcher::Withdrawal& withdrawal);
    static std::shared_ptr<Bundle> FindChanged(BundleManager& manager, const std::string& path);
    std::shared_ptr<Bundle> LoadAdded(BundleManager& manager, const std::string& path);
    void RetryRemoval(BundleManager& manager, const Bundle& bundle);
    void OfferRefusedAgain();
    static void StartAdded(BundleManager& manager, const std::shared_ptr<Bundle>& bundle);
    static void UpdateAndRestart(BundleManager& manager, const std::shared_ptr<Bundle>& bundle);
    /// Goes before the error record of a step that failed, which names the object but not the cause.
    static void LogReason(const std::exception& e);

    using Gate = std::promise<std::shared_ptr<BundleManager>>;

    // The main thread's, but for m_changes and m_gateOpen: these are set before there is a handler, and stay.
    StartUpSignals m_startUpSignals;
    bool m_helpRequested = false;
    std::shared_ptr<BundleManager> m_bundleManager; // the main thread's; the watcher's gets it through the gate
    std::shared_ptr<Poco::DirectoryWatcher> m_dirWatcher;
    std::unique_ptr<DirectorySync> m_collectionSync;
    BundleDirWatcher* m_changes = nullptr; // *m_dirWatcher, for its handlers, which run even while it is being released
    // Events wait here until start-up has started the collection, for its walks over all bundles and a handler would
    // get into each other's way; empty when it has failed.
    Gate m_gate;
    std::shared_future<std::shared_ptr<BundleManager>> m_gateOpen;
    std::exception_ptr m_startupFailure;
    // The watcher's thread's.
    std::set<std::string> m_unfinishedRemovals;  // paths of bundles that could not be stopped when they had gone
    std::vector<std::string> m_refusedMeanwhile; // paths of additions: what has gone may have held their names
};

} // namespace SystemServer

#endif
