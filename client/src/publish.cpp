#include "client/include/bundle_client.h"
#include "client/src/event_service.h"
#include "client/src/event_stream.h"
#include "client/src/no_cancellation.h"
#include "common/unique_fd.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

namespace {

using Common::UniqueFd;

/// Copies a name into its field. False when it does not fit.
template <std::size_t Size> bool Fill(char (&field)[Size], const char* name)
{
    static_assert(Size == BUNDLE_CLIENT_EVENT_NAME_MAX + 1);
    const std::size_t length = name != nullptr ? ::strnlen(name, Size) : Size;
    if (length == Size) {
        return false;
    }
    std::memcpy(field, name, length);
    return true;
}

/// Opens the event service. UNHEARD when it does not exist or, with O_WRONLY, has no reader.
int OpenForPublishing(UniqueFd& fifo, int access)
{
    const int result = BundleClient::OpenEventService(fifo, access);
    return result == BUNDLE_CLIENT_SYSTEM && (errno == ENXIO || errno == ENOENT) ? BUNDLE_CLIENT_UNHEARD : result;
}

int Publish(const BundleClient::EventMessage& message)
{
    // This open fails without a reader. The descriptor is not used for writing: if the reader leaves, the write would
    // raise SIGPIPE.
    UniqueFd heard;
    int result = OpenForPublishing(heard, O_WRONLY);
    if (result != BUNDLE_CLIENT_OK) {
        return result;
    }
    UniqueFd fifo;
    result = OpenForPublishing(fifo, O_RDWR);
    if (result != BUNDLE_CLIENT_OK) {
        return result;
    }
    // A write this short is complete or has no effect, and does not wait.
    if (::write(fifo.Get(), &message, sizeof message) >= 0) {
        return BUNDLE_CLIENT_OK;
    }
    return errno == EAGAIN ? BUNDLE_CLIENT_UNHEARD : BUNDLE_CLIENT_SYSTEM;
}

} // namespace

int bundle_client_publish(const char* publisher, const char* event)
{
    BundleClient::EventMessage message = BundleClient::EmptyEvent();
    if (!Fill(message.record.publisher, publisher) || !Fill(message.record.event, event)) {
        return BUNDLE_CLIENT_INVALID;
    }
    const BundleClient::NoCancellation noCancellation;
    return Publish(message);
}
