#ifndef TESTS_UNIT_PROCESSES_THE_MONITOR_H
#define TESTS_UNIT_PROCESSES_THE_MONITOR_H

#include "support/fault.h"
#include "unit/processes/running_items.h"

#include <gtest/gtest.h>

#include <unistd.h>

#include <string>

/// The process monitor with one item, "media.mediad".
class TheMonitor : public RunningItems {
public:
    /// The beginning of the records on "media.mediad".
    static std::string Named(int pid) { return "media.mediad[" + std::to_string(pid) + "]"; }

    /// Launches media.mediad. Returns its pid, even if it has ended meanwhile.
    int LaunchMediad(const std::string& content)
    {
        const std::string path = collection.Bundle("media").Item("mediad", content).Write();
        int pid = 0;
        const BeforeEach release(Call::WRITE_BYTE, [&pid](int) { pid = pid == 0 ? PidOf("media.mediad") : pid; });
        Launch(path + "/bin/mediad");
        return pid;
    }

    std::string Group() const { return "BundleProcessActivator monitor pgid [" + std::to_string(::getpgrp()) + "] "; }
};

#endif
