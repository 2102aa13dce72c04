#ifndef ALGAPP_BOLT_COMM_H
#define ALGAPP_BOLT_COMM_H

#include <lumo.h>
#include <sprintf_s.h>
#include <zq_log.h>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstddef>
#include <cstring>
#include <memory>

/// Publishing on the device's event service, for every program of the device. Header-only: a program needs only the
/// platform's libraries.
namespace SystemServer {

/// The event service's FIFO, which its listener makes and reads.
constexpr const char EVENT_SERVICE_PATH[] = "/mnt/bolt/event.paas.kov";

/// The method of an event message, in the low bits of the header's byte 3.
constexpr unsigned char EVENT_METHOD = 1;

/// The content of an event message, as it is on the wire: NUL-terminated names, every other byte zero.
struct EventRecord {
    char publisher[16];
    char event[16];
    char reserved[32];
};
static_assert(sizeof(EventRecord) == 64, "the event record is 64 bytes on the wire");

namespace EventDetail {

constexpr int EVENT_LOG_MODULE = 4;
constexpr int EVENT_LOG_ERROR = 3;
// Tells the records of this shared header from those of the program that includes it.
constexpr int EVENT_LOG_FLAG = 1;

struct MessagePut {
    void operator()(lumo_message* msg) const { lumo_message_put(msg); }
};

/// Writes name into a 16-byte field. Returns what sprintf_s returned, which is the name's length when it fitted.
inline int FillField(char (&field)[16], const char* name)
{
    return sprintf_s(field, sizeof field, "%s", name);
}

/// Sends the record to the open event service. False when no message could be made of it; whether anybody receives the
/// message is not known to a publisher.
inline bool Send(const EventRecord& record, int fd)
{
    const std::unique_ptr<lumo_message, MessagePut> msg(lumo_message_new(0));
    if (!msg) {
        ZQ_WriteLog(EVENT_LOG_MODULE, EVENT_LOG_ERROR, EVENT_LOG_FLAG, 0, __FILE__, __LINE__, "new send msg failed\n");
        return false;
    }
    constexpr unsigned char responseFlag = 0x80;
    msg->header.kind = 0;
    msg->header.uri = 0;
    msg->header.method = static_cast<unsigned char>((msg->header.method & responseFlag) | EVENT_METHOD);
    if (lumo_content_add(msg.get(), &record, static_cast<int>(sizeof record), 0) != 0) {
        ZQ_WriteLog(EVENT_LOG_MODULE, EVENT_LOG_ERROR, EVENT_LOG_FLAG, 0, __FILE__, __LINE__, "data append failed\n");
        return false;
    }
    lumo_message_sendfd(msg.get(), fd);
    return true;
}

/// Opens the event service; -1 when it is missing or is no FIFO. A link in its place is not followed, and only a FIFO
/// is written to: a user who may write to the directory must not choose the file that a publisher writes to.
inline int OpenService()
{
    // Opened for reading too: a FIFO without a reader would refuse a writer alone. Non-blocking: a listener that has
    // stopped reading costs itself events, never the publisher time.
    const int fd = ::open(EVENT_SERVICE_PATH, O_RDWR | O_NONBLOCK | O_NOFOLLOW | O_NOCTTY | O_CLOEXEC);
    struct stat status {};
    if (fd >= 0 && ::fstat(fd, &status) == 0 && S_ISFIFO(status.st_mode)) {
        return fd;
    }
    if (fd >= 0) {
        ::close(fd);
    }
    return -1;
}

} // namespace EventDetail

/// Publishes one event. Without a listener, or with one that has fallen behind, the event is dropped: publishing never
/// waits.
/// @param publisher, event at most 15 characters each
/// Any thread. A failure is logged and has no other effect.
inline void PublishEvent(const char* publisher, const char* event)
{
    using namespace EventDetail;
    EventRecord record{};
    const int eventLength = FillField(record.event, event);
    if (eventLength < 0 || static_cast<std::size_t>(eventLength) != std::strlen(event)) {
        ZQ_WriteLog(EVENT_LOG_MODULE, EVENT_LOG_ERROR, EVENT_LOG_FLAG, 0, __FILE__, __LINE__,
                    "Failed to sprint event %s errorNo %d event is %zu", event, eventLength, std::strlen(event) + 1);
        return;
    }
    const int publisherLength = FillField(record.publisher, publisher);
    if (publisherLength < 0 || static_cast<std::size_t>(publisherLength) != std::strlen(publisher)) {
        ZQ_WriteLog(EVENT_LOG_MODULE, EVENT_LOG_ERROR, EVENT_LOG_FLAG, 0, __FILE__, __LINE__,
                    "Failed to sprint publisher %s", publisher);
        return;
    }
    const int fd = OpenService();
    if (fd < 0) {
        ZQ_WriteLog(EVENT_LOG_MODULE, EVENT_LOG_ERROR, EVENT_LOG_FLAG, 0, __FILE__, __LINE__, "open event srv fail");
        return;
    }
    const bool sent = Send(record, fd);
    ::close(fd);
    if (!sent) {
        ZQ_WriteLog(EVENT_LOG_MODULE, EVENT_LOG_ERROR, EVENT_LOG_FLAG, 0, __FILE__, __LINE__, "SigPublish failed");
    }
}

} // namespace SystemServer

#endif
