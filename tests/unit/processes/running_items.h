#ifndef TESTS_UNIT_PROCESSES_RUNNING_ITEMS_H
#define TESTS_UNIT_PROCESSES_RUNNING_ITEMS_H

#include "bundle_process_activator.h"
#include "support/collection_builder.h"
#include "support/log_capture.h"

#include <Poco/Exception.h>

#include <gtest/gtest.h>

#include <chrono>
#include <map>
#include <memory>
#include <mutex>
#include <set>
#include <string>
#include <vector>

/// The table of children that all process activators share, accessible to tests.
class ProcessTable : public SystemServer::BundleProcessActivator {
public:
    using BundleProcessActivator::ExitStatusProc;
    using BundleProcessActivator::HandleExit;

    static std::map<int, ProcessInfo> Entries();
    static std::set<int> Marks();
    static void ForgetMarks();
    static bool IsMonitorRunning() { return m_isMonitorRunning; }
    static void Add(int pid, const ProcessInfo& info);
    static void Remove(int pid);

    /// Ends the monitor and all items, also those that are always relaunched. False when that fails.
    static bool EndAll();

    /// The same when the monitor has ended for good.
    static void EndAllWithoutMonitor();

private:
    static void KillAndMarkAll();
};

/// Bundles whose items run as real processes. None of them outlives the test.
class RunningItems : public ::testing::Test {
public:
    static constexpr std::chrono::seconds PATIENCE{30};

    using Activator = SystemServer::BundleProcessActivator;
    using ActivatorPtr = std::shared_ptr<Activator>;

    RunningItems();
    ~RunningItems() override;

    static ActivatorPtr Make(const BundleBuilder& builder);
    static ActivatorPtr Start(const BundleBuilder& builder);

    /// Launches one item as a binary of a bundle.
    static void Launch(const std::string& path, const std::string& bundleName = "media");

    /// An item that runs for a minute unless it is killed.
    static std::string Sleeper() { return "#!/bin/sh\nexec sleep 60\n"; }
    static std::string Exiting(int status) { return "#!/bin/sh\nexit " + std::to_string(status) + "\n"; }
    /// An item that exits with the status at the trigger. Started again, it keeps running.
    std::string ExitingAtTrigger(int status) const;
    void PullTrigger() const;

    /// The text of the exception by which the operation refuses; empty when it throws nothing.
    template <class Operation> static std::string Refusal(const Operation& operation)
    {
        try {
            operation();
        } catch (const Poco::InvalidArgumentException& e) {
            EXPECT_EQ(e.code(), 0);
            return e.message();
        }
        return "";
    }

    /// The pid of an item in the table, the newest if there are several; 0 when there is none.
    static int PidOf(const std::string& processName);

    /// Waits until the record has been written that many times.
    bool IsLogged(const std::string& message, int times = 1) const;
    bool MonitorEnds() const;

    /// The lines that the probe of that name has written. Waits for them.
    std::vector<std::string> ProbeReport(const std::string& name) const;
    /// The rest of each line that begins with the word.
    std::vector<std::string> Reported(const std::string& name, const std::string& word) const;

    CollectionBuilder collection;
    TemporaryDirectory outside;
    LogCapture log;
};

#endif
