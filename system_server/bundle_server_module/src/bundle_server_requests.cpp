// The requests that the server answers, on the main thread.

#include "bundle_log.h"
#include "bundle_server.h"

#include <algapp_bolt_comm.h>
#include <bundle_service.h>

#include <cstring>

namespace SystemServer {

using BundleService::METHOD_MASK;
using BundleService::NAME_FIELD_SIZE;
using BundleService::RESPONSE_FLAG;
using BundleService::STATUS_BAD_REQUEST;
using BundleService::STATUS_NOT_FOUND;
using BundleService::STATUS_OK;

void PublishDeleteMsg()
{
    PublishEvent("bundle_service", "app.event.init");
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
        // A name without a NUL ends where the content ends.
        reply.retCode = DeleteBundle(static_cast<const char*>(content), msg->header.length);
    }
    ReplyMsg(msg, conn, reply);
    if (reply.retCode == STATUS_OK) {
        PublishDeleteMsg();
    }
}

// Every failure ends in a status, so each request gets exactly one reply.
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
        return server.m_removal->Remove(*server.m_bundleManager, bundle) ? STATUS_OK : STATUS_BAD_REQUEST;
    } catch (const std::exception& e) {
        BUNDLE_ERROR("request fail.exception info: [%s].", e.what());
        return STATUS_BAD_REQUEST;
    }
}

} // namespace SystemServer
