#include "event_loop.h"

#include "platform/host/log/host_log.h"

#include <cerrno>
#include <cstring>
#include <memory>

namespace HostPlatform {

namespace {

/// Puts the event library's own complaints into the log.
void LogForLibrary(int severity, const char* text)
{
    if (severity >= EVENT_LOG_WARN) {
        HOST_LOG_ERROR("event loop: %s.", text);
    }
}

struct ConfigFree {
    void operator()(event_config* config) const { event_config_free(config); }
};

event_base* NewBase()
{
    const std::unique_ptr<event_config, ConfigFree> config(event_config_new());
    // Everything runs on the thread of the loop; and the environment must not change how a service behaves.
    if (!config || event_config_set_flag(config.get(), EVENT_BASE_FLAG_NOLOCK | EVENT_BASE_FLAG_IGNORE_ENV) != 0) {
        return nullptr;
    }
    return event_base_new_with_config(config.get());
}

} // namespace

bool EventLoop::Open()
{
    event_set_log_callback(LogForLibrary);
    m_base.reset(NewBase());
    if (!m_base) {
        HOST_LOG_ERROR("no event loop can be made: %s.", std::strerror(errno));
        return false;
    }
    return true;
}

} // namespace HostPlatform
