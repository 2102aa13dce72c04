#include "client/before_calls.h"

#include <sys/socket.h>
#include <unistd.h>

#include <utility>

// The linker replaces the library's calls by these: see --wrap in CMakeLists.txt.
ssize_t RealSendmsg(int fd, const msghdr* message, int flags) __asm__("__real_sendmsg");
ssize_t WrappedSendmsg(int fd, const msghdr* message, int flags) __asm__("__wrap_sendmsg");
ssize_t RealWrite(int fd, const void* data, std::size_t size) __asm__("__real_write");
ssize_t WrappedWrite(int fd, const void* data, std::size_t size) __asm__("__wrap_write");

namespace {

thread_local BeforeSending::Action g_action;

void Act(int fd)
{
    // Runs the action once, so that the action itself may write.
    const BeforeSending::Action action = std::exchange(g_action, nullptr);
    if (action) {
        action(fd);
    }
}

} // namespace

ssize_t WrappedSendmsg(int fd, const msghdr* message, int flags)
{
    Act(fd);
    return RealSendmsg(fd, message, flags);
}

ssize_t WrappedWrite(int fd, const void* data, std::size_t size)
{
    Act(fd);
    return RealWrite(fd, data, size);
}

BeforeSending::BeforeSending(Action action)
{
    g_action = std::move(action);
}

BeforeSending::~BeforeSending()
{
    g_action = nullptr;
}
