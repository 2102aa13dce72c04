#include "unit/server/open_server.h"

#include "support/eventually.h"

#include <pthread.h>
#include <unistd.h>

#include <atomic>
#include <csignal>
#include <thread>

namespace {

class TheService : public TheServer {};

} // namespace

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

TEST_F(TheService, IsNotRunWithoutItsRegistration)
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

TEST_F(TheService, LeavesTheServerRunningWhenItCannotRun)
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
    EXPECT_FALSE(Eventually(200ms, [&] { return hasReturned.load(); })) << "a server without a service stays up";
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
