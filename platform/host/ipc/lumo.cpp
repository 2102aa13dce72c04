#include <lumo.h>

#include "connection.h"
#include "message.h"

#include <unistd.h>

#include <cerrno>
#include <cstddef>
#include <new>
#include <string_view>

using HostPlatform::MAX_CONTENT_SIZE;
using HostPlatform::Message;
using HostPlatform::MessageOf;

lumo_message* lumo_message_new(int /*flags*/)
{
    return new (std::nothrow) Message;
}

void lumo_message_put(lumo_message* msg)
{
    if (msg != nullptr) {
        delete &MessageOf(msg);
    }
}

void lumo_header_clear(lumo_message* msg)
{
    msg->header = lumo_header{};
    MessageOf(msg).KeepLength();
}

int lumo_content(lumo_message* msg, void** data, int* length)
{
    Message& message = MessageOf(msg);
    if (message.ContentSize() == 0) {
        return -1;
    }
    *data = message.Content();
    *length = static_cast<int>(message.ContentSize());
    return 0;
}

int lumo_content_add(lumo_message* msg, const void* data, int length, int /*flags*/)
{
    Message& message = MessageOf(msg);
    if (length < 0 || static_cast<std::size_t>(length) > MAX_CONTENT_SIZE - message.ContentSize()) {
        return -1;
    }
    if (length == 0) {
        return 0;
    }
    if (data == nullptr) {
        return -1;
    }
    try {
        message.packet.append(static_cast<const char*>(data), static_cast<std::size_t>(length));
    } catch (const std::bad_alloc&) {
        return -1;
    }
    message.KeepLength();
    return 0;
}

void lumo_content_clear(lumo_message* msg)
{
    MessageOf(msg).packet.resize(sizeof msg->header);
    MessageOf(msg).KeepLength();
}

int lumo_message_async_send(lumo_message* msg, bolt_connection* conn, int /*flags*/)
{
    return static_cast<HostPlatform::Connection*>(conn)->Send(MessageOf(msg)) ? 0 : -1;
}

int lumo_message_sendfd(lumo_message* msg, int fd)
{
    const std::string_view packet = MessageOf(msg).Packet();
    ssize_t written = 0;
    do {
        written = ::write(fd, packet.data(), packet.size());
    } while (written < 0 && errno == EINTR);
    return written == static_cast<ssize_t>(packet.size()) ? 0 : -1;
}
