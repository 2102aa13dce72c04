#ifndef TESTS_UNIT_SERVER_OPEN_SERVER_H
#define TESTS_UNIT_SERVER_OPEN_SERVER_H

#include "bundle_server.h"
#include "support/collection_builder.h"
#include "support/fault.h"
#include "support/log_capture.h"
#include "support/packets.h"
#include "support/watcher_making.h"

#include <gtest/gtest.h>

#include <chrono>
#include <cstdint>
#include <optional>
#include <string>
#include <thread>
#include <vector>

using namespace std::chrono_literals;
using Clock = std::chrono::steady_clock;
using Messages = std::vector<std::string>;
constexpr auto PATIENCE = 30s;

/// The server with its protected members accessible.
class OpenServer : public SystemServer::BundleServer {
public:
    using BundleServer::defineOptions;
    using BundleServer::DeleteBundleItem;
    using BundleServer::GetParamFromContent;
    using BundleServer::initialize;
    using BundleServer::m_msgHndl;
    using BundleServer::m_protocolOps;
    using BundleServer::m_serverOps;
    using BundleServer::main;
    using BundleServer::OnItemAdded;
    using BundleServer::OnItemModified;
    using BundleServer::OnItemRemoved;
    using BundleServer::ProcessMsg;
    using BundleServer::ReplyMsg;
    using BundleServer::ReplyMsgInfo;
    using BundleServer::RunService;
    using BundleServer::StartServer;
};

class TheServer : public ::testing::Test {
public:
    using DirectoryWatcher = Poco::DirectoryWatcher;
    using DirectoryEvent = DirectoryWatcher::DirectoryEvent;

    std::string ConfigFor(const std::string& directory) const
    {
        std::string path = outside / "server.ini";
        WriteFile(path, "[global]\nbundle_collection_dir = " + directory + "\n");
        return path;
    }

    void ReadConfig(const std::string& path)
    {
        server.emplace();
        server->init({"bundle_server", "-f", path});
    }

    void StartUp()
    {
        ReadConfig(ConfigFor(collection.Path()));
        server->initialize(*server);
    }

    /// Calls a handler on another thread, as the watcher does.
    void Raise(void (OpenServer::*handler)(const DirectoryEvent&), const std::string& path,
               DirectoryWatcher::DirectoryEventType type)
    {
        std::thread([&] {
            const Poco::File item(path);
            ((*server).*handler)(DirectoryEvent(item, type));
        }).join();
    }
    void RaiseAdded(const std::string& path) { Raise(&OpenServer::OnItemAdded, path, DirectoryWatcher::DW_ITEM_ADDED); }
    void RaiseRemoved(const std::string& path)
    {
        Raise(&OpenServer::OnItemRemoved, path, DirectoryWatcher::DW_ITEM_REMOVED);
    }
    void RaiseModified(const std::string& path)
    {
        Raise(&OpenServer::OnItemModified, path, DirectoryWatcher::DW_ITEM_MODIFIED);
    }

    std::string Noting(const std::string& line) const
    {
        return "#!/bin/sh\necho " + line + " >> " + (outside / "notes") + "\n";
    }
    std::string Notes() const { return ReadFile(outside / "notes"); }
    std::string ScriptPath(const std::string& bundle, const std::string& script) const
    {
        return collection / bundle + "/./script/" + script;
    }

    SleepyWatchers sleepy;
    CollectionBuilder collection;
    TemporaryDirectory outside;
    LogCapture log;
    std::optional<OpenServer> server;
};

/// Requests to a running server.
class ARequest : public TheServer {
public:
    struct Reply {
        int count = 0;
        int status = 0;
    };

    /// Sends a request and returns its one reply, which must be a status and nothing else.
    Reply Ask(std::uint8_t method, std::uint16_t uri, const std::string& content)
    {
        TakeSentMessages();
        lumo_message* const msg = lumo_message_new(0);
        msg->header.method = method;
        msg->header.uri = uri;
        msg->header.kind = 9;
        lumo_content_add(msg, content.data(), static_cast<int>(content.size()), 0);
        OpenServer::ProcessMsg(msg, &connection);
        lumo_message_put(msg);
        const auto sent = TakeSentMessages();
        Reply reply;
        reply.count = static_cast<int>(sent.size());
        for (const SentMessage& message : sent) {
            reply.status = message.header.status;
            EXPECT_EQ(message.header.method, 0x80);
            EXPECT_EQ(message.header.kind, 0);
            EXPECT_EQ(message.header.uri, 0);
            EXPECT_EQ(message.header.length, 0);
            EXPECT_EQ(message.content, "");
            EXPECT_EQ(message.connection, &connection);
            EXPECT_EQ(message.flags, 0);
        }
        return reply;
    }

    int StatusOf(std::uint8_t method, std::uint16_t uri, const std::string& content)
    {
        const Reply reply = Ask(method, uri, content);
        EXPECT_EQ(reply.count, 1);
        return reply.status;
    }

    int Delete(const std::string& name) { return StatusOf(4, 0, NameField(name)); }

    bolt_connection connection{77};
};

#endif
