#ifndef BUNDLE_SERVER_H
#define BUNDLE_SERVER_H

#include "bundle_manager.h"
#include "bundle_removal.h"
#include "collection_follower.h"
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
#include <memory>
#include <string>
#include <vector>

namespace SystemServer {

/// Publishes that a bundle has been deleted. Any thread; a failure is only logged.
void PublishDeleteMsg();

/// The server: command line, configuration, start-up, the request service on the main thread, and the events of the
/// collection directory on the watcher's thread. One object a process. When it ends, it stops neither the bundles'
/// processes nor their threads.
class BundleServer : public Poco::Util::ServerApplication {
public:
    /// On the main thread, before any other thread is started.
    BundleServer() = default;
    /// Waits for a running handler of the watcher, then releases the bundles.
    ~BundleServer() override;

    /// Rethrows the exception of the start-up. The framework catches it and only makes run() return its configuration
    /// error.
    /// @throws what initialize has thrown; returns when it has thrown nothing
    void RethrowStartupFailure() const;

protected:
    using MsgHandler = void (*)(lumo_message*, bolt_connection*);

    /// A reply to a request. The caller keeps the content.
    struct ReplyMsgInfo {
        std::uint16_t retCode; ///< 200, 400 or 404
        const void* content;
        std::uint32_t contentLen; ///< 0: no content
    };

    /// Loads, resolves and starts the collection, then sets up the framework's subsystems. The watcher's handlers wait
    /// until the bundles are started.
    /// @throws Poco::NotFoundException the configuration lacks "global.bundle_collection_dir"
    /// @throws what the watcher and the manager throw
    void initialize(Application& self) override;
    /// Adds "help" and "config-file" to the options of the framework.
    void defineOptions(Poco::Util::OptionSet& options) override;

    /// Runs the service until a signal ends it. Without a service, it also waits for the signal: the bundles are still
    /// supervised. Returns the process's exit status, which is always 0.
    int main(const std::vector<std::string>& args) override;

    /// Prints the help and ends the process with status 0. Never returns.
    void HandleHelp(const std::string& name, const std::string& value);
    /// @param value the path of the file that is loaded
    /// @throws Poco::Exception the file cannot be loaded
    void HandleConfig(const std::string& name, const std::string& value);
    /// Writes the help to standard output.
    void DisplayHelp();

    /// Serves requests on this thread until the event loop ends. Returns at once, with an error record, when the
    /// service cannot be set up.
    void RunService();
    /// The event loop's call when the service is registered. Returns 0: nothing can fail.
    static int StartServer(bolt_server* server, void* arg);
    /// The event loop's call for each request. Sends exactly one reply. The loop keeps the message. Throws nothing.
    static void ProcessMsg(lumo_message* msg, bolt_connection* conn);
    /// Turns the request into its reply and queues it. Never blocks; a reply that cannot be queued is dropped.
    static void ReplyMsg(lumo_message* msg, bolt_connection* conn, const ReplyMsgInfo& info);
    /// Points param at the request's content, which the message owns. Returns 0, or -1 with an error record when the
    /// content has fewer than required bytes.
    static int GetParamFromContent(lumo_message* msg, bolt_connection* conn, void** param, unsigned required);
    /// Deletes the bundle that the request names, replies and, on success, publishes the event. Takes as long as the
    /// bundle's scripts and "rm" do; further requests wait.
    static void DeleteBundleItem(lumo_message* msg, bolt_connection* conn);

    // The watcher's events, on its thread. CollectionFollower says what they do and throw.
    void OnItemAdded(const Poco::DirectoryWatcher::DirectoryEvent& event);
    void OnItemRemoved(const Poco::DirectoryWatcher::DirectoryEvent& event);
    void OnItemModified(const Poco::DirectoryWatcher::DirectoryEvent& event);

    static const bolt_server_ops m_serverOps;
    static const bolt_protocol_ops m_protocolOps;
    static const std::array<MsgHandler, 5> m_msgHndl; ///< by method; empty where no such request exists

private:
    void StartUp();
    void WatchCollection(const std::string& collectionDir);
    static std::uint16_t DeleteBundle(const char* content, std::size_t length);

    // Used on the main thread, apart from m_follower, whose handlers run on the watcher's thread.
    StartUpSignals m_startUpSignals;
    bool m_helpRequested = false;
    std::shared_ptr<BundleManager> m_bundleManager; // the watcher's thread gets it through the follower's gate
    std::shared_ptr<Poco::DirectoryWatcher> m_dirWatcher;
    CollectionFollower m_follower; // outlives the watcher's thread
    std::unique_ptr<BundleRemoval> m_removal;
    std::exception_ptr m_startupFailure;
};

} // namespace SystemServer

#endif
