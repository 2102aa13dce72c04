#include "client/listening.h"

#include "common/unique_fd.h"
#include "support/packets.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>

const std::string NONE = bundle_client_text(BUNDLE_CLIENT_TIMEOUT);

Listener Listen()
{
    bundle_client_listener* listener = nullptr;
    EXPECT_EQ(bundle_client_listener_open(&listener), BUNDLE_CLIENT_OK);
    return {listener, bundle_client_listener_close};
}

std::string Next(const Listener& listener, int timeout)
{
    bundle_client_event event{};
    const int result = bundle_client_listener_next(listener.get(), &event, timeout);
    return result == BUNDLE_CLIENT_OK ? std::string(event.publisher) + ' ' + event.event : bundle_client_text(result);
}

std::string EventOf(std::string publisher, std::string event)
{
    publisher.resize(16, '\0');
    event.resize(16, '\0');
    return PacketOf(1, 0, publisher + event + std::string(32, '\0'));
}

void Write(const std::string& bytes)
{
    const Common::UniqueFd fifo(::open(EVENT_SERVICE, O_RDWR | O_NONBLOCK | O_CLOEXEC));
    EXPECT_EQ(::write(fifo.Get(), bytes.data(), bytes.size()), static_cast<ssize_t>(bytes.size()));
}

void WithoutAnEventService::SetUp()
{
    std::filesystem::remove_all("/mnt/bolt");
    ::mkdir("/mnt/bolt", 0755);
}
