#include <bolt.h>

#include "event_manager.h"
#include "platform/host/log/host_log.h"

#include <exception>
#include <list>
#include <memory>

using HostPlatform::EventManager;

namespace {

/// The interface has no call that gives an event manager back. They stay reachable here and are never destroyed: a
/// service may be in use while the process ends.
std::list<std::unique_ptr<EventManager>>& Managers()
{
    static auto& managers = *new std::list<std::unique_ptr<EventManager>>;
    return managers;
}

} // namespace

bolt_event_mgr* bolt_event_mgr_new(int /*flags*/)
{
    try {
        std::unique_ptr<EventManager> manager = EventManager::Make();
        return manager ? Managers().emplace_back(std::move(manager)).get() : nullptr;
    } catch (const std::exception& exception) {
        HOST_LOG_ERROR("no event manager can be made: %s.", exception.what());
        return nullptr;
    }
}

int bolt_server_register(const char* service, bolt_event_mgr* mgr, const bolt_server_ops* ops, void* arg)
{
    if (service == nullptr || mgr == nullptr) {
        HOST_LOG_ERROR("a service without a name or an event manager cannot be registered.");
        return -1;
    }
    try {
        return static_cast<EventManager*>(mgr)->Register(service, ops, arg) ? 0 : -1;
    } catch (const std::exception& exception) {
        HOST_LOG_ERROR("service[%s] cannot be registered: %s.", service, exception.what());
        return -1;
    }
}

// NOLINTNEXTLINE(readability-identifier-naming): the header's own name
int bolt_event_mgr_run(bolt_event_mgr* mgr, int timeout_ms)
{
    try {
        return mgr != nullptr && static_cast<EventManager*>(mgr)->Run(timeout_ms) ? 0 : -1;
    } catch (const std::exception& exception) {
        HOST_LOG_ERROR("the event loop does not run: %s.", exception.what());
        return -1;
    }
}
