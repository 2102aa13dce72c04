#ifndef TESTS_UNIT_PROCESSES_MONITOR_HELD_H
#define TESTS_UNIT_PROCESSES_MONITOR_HELD_H

#include "support/eventually.h"
#include "support/fault.h"
#include "unit/processes/running_items.h"

#include <pthread.h>
#include <unistd.h>

#include <array>
#include <atomic>
#include <cstring>

/// Stops the process monitor once, before its next call of one kind, until Release.
class MonitorHeld {
public:
    explicit MonitorHeld(Call call) : m_beforeCall(call, [this](int) { HoldOnce(); }) {}
    ~MonitorHeld() { Release(); }
    MonitorHeld(const MonitorHeld&) = delete;
    MonitorHeld& operator=(const MonitorHeld&) = delete;

    /// False when the monitor has not come to that call in time.
    bool HasArrived() const
    {
        return Eventually(RunningItems::PATIENCE, [this] { return m_hasArrived.load(); });
    }
    void Release() { m_isReleased = true; }

private:
    static bool IsMonitor()
    {
        std::array<char, 16> name{};
        ::pthread_getname_np(::pthread_self(), name.data(), name.size());
        return std::strcmp(name.data(), "bundle_monitor") == 0;
    }

    void HoldOnce()
    {
        if (m_isReleased || !IsMonitor() || m_hasArrived.exchange(true)) {
            return;
        }
        while (!m_isReleased) {
            ::usleep(1000);
        }
    }

    std::atomic<bool> m_hasArrived{false};
    std::atomic<bool> m_isReleased{false};
    const BeforeEach m_beforeCall; // the last member, because its destructor waits for a held monitor
};

#endif
