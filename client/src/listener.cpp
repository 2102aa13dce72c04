#include "client/include/bundle_client.h"
#include "client/src/deadline.h"
#include "client/src/event_service.h"
#include "client/src/event_stream.h"
#include "client/src/no_cancellation.h"
#include "common/service_directory.h"
#include "common/unique_fd.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <new>
#include <utility>

using BundleClient::Deadline;
using BundleClient::NoCancellation;
using Common::UniqueFd;
using SystemServer::EVENT_SERVICE_PATH;
using SystemServer::EventRecord;

struct bundle_client_listener {
    UniqueFd fifo;
    BundleClient::EventStream stream;
};

namespace {

bool MakeFifo()
{
    // Set again because the umask may have removed bits.
    constexpr mode_t mode = 0660;
    if (::mkfifo(EVENT_SERVICE_PATH, mode) == 0) {
        return ::chmod(EVENT_SERVICE_PATH, mode) == 0;
    }
    return errno == EEXIST;
}

int OpenFifo(UniqueFd& fifo)
{
    if (!Common::MakeServiceDirectory() || !MakeFifo()) {
        return BUNDLE_CLIENT_SYSTEM;
    }
    // Also for writing, so that the end of one publisher is not the end of the file.
    return BundleClient::OpenEventService(fifo, O_RDWR);
}

enum class Fill { FULL, EMPTIED, FAILED };

/// Reads the bytes in the FIFO.
Fill Read(bundle_client_listener& listener)
{
    const std::size_t wanted = BundleClient::EventStream::READ_SIZE;
    ssize_t size = 0;
    do {
        size = ::read(listener.fifo.Get(), listener.stream.Room(), wanted);
    } while (size < 0 && errno == EINTR);
    if (size < 0) {
        return errno == EAGAIN ? Fill::EMPTIED : Fill::FAILED;
    }
    listener.stream.Added(static_cast<std::size_t>(size));
    return static_cast<std::size_t>(size) < wanted ? Fill::EMPTIED : Fill::FULL;
}

/// Takes the next event from the bytes that were read and those in the FIFO. TIMEOUT: no event.
int TakeEvent(bundle_client_listener& listener, EventRecord& record)
{
    if (listener.stream.Next(record)) {
        return BUNDLE_CLIENT_OK;
    }
    const Fill fill = Read(listener);
    if (fill == Fill::FAILED) {
        return BUNDLE_CLIENT_SYSTEM;
    }
    if (listener.stream.Next(record)) {
        return BUNDLE_CLIENT_OK;
    }
    if (fill == Fill::EMPTIED) {
        listener.stream.DropRest();
    }
    return BUNDLE_CLIENT_TIMEOUT;
}

int WaitForEvent(bundle_client_listener& listener, EventRecord& record, const Deadline& deadline)
{
    for (;;) {
        const int result = TakeEvent(listener, record);
        if (result != BUNDLE_CLIENT_TIMEOUT || deadline.IsOver()) {
            return result;
        }
        // Another listener may read the event that has ended the wait.
        pollfd readable{listener.fifo.Get(), POLLIN, 0};
        if (::poll(&readable, 1, deadline.ForPoll()) < 0 && errno != EINTR) {
            return BUNDLE_CLIENT_SYSTEM;
        }
    }
}

template <std::size_t Size, std::size_t FieldSize> void CopyName(char (&name)[Size], const char (&field)[FieldSize])
{
    static_assert(Size == FieldSize + 1);
    std::memset(name, 0, Size);
    std::memcpy(name, field, ::strnlen(field, FieldSize));
}

} // namespace

int bundle_client_listener_open(bundle_client_listener** listener)
{
    if (listener == nullptr) {
        return BUNDLE_CLIENT_INVALID;
    }
    *listener = nullptr;
    const NoCancellation noCancellation;
    UniqueFd fifo;
    const int result = OpenFifo(fifo);
    if (result != BUNDLE_CLIENT_OK) {
        return result;
    }
    // The usual "new" is in the C++ library, which this library must not need.
    void* const memory = std::malloc(sizeof(bundle_client_listener));
    if (memory == nullptr) {
        return BUNDLE_CLIENT_SYSTEM;
    }
    *listener = new (memory) bundle_client_listener{std::move(fifo), {}};
    return BUNDLE_CLIENT_OK;
}

int bundle_client_listener_next(bundle_client_listener* listener, bundle_client_event* event, int timeout)
{
    if (listener == nullptr || event == nullptr) {
        return BUNDLE_CLIENT_INVALID;
    }
    const NoCancellation noCancellation;
    EventRecord record{};
    const int result = WaitForEvent(*listener, record, Deadline(timeout));
    if (result == BUNDLE_CLIENT_OK) {
        CopyName(event->publisher, record.publisher);
        CopyName(event->event, record.event);
    }
    return result;
}

int bundle_client_listener_fd(const bundle_client_listener* listener)
{
    return listener != nullptr ? listener->fifo.Get() : -1;
}

size_t bundle_client_listener_skipped(bundle_client_listener* listener)
{
    return listener != nullptr ? listener->stream.TakeSkipped() : 0;
}

void bundle_client_listener_close(bundle_client_listener* listener)
{
    if (listener != nullptr) {
        const NoCancellation noCancellation;
        listener->~bundle_client_listener();
        std::free(listener);
    }
}
