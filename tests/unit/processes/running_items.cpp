#include "unit/processes/running_items.h"

#include "support/eventually.h"
#include "support/fault.h"

#include <Poco/Util/Application.h>

#include <sys/wait.h>

#include <csignal>
#include <cstdlib>
#include <sstream>
#include <thread>

using SystemServer::Bundle;
using SystemServer::BundleStorageDir;

std::map<int, ProcessTable::ProcessInfo> ProcessTable::Entries()
{
    const std::lock_guard<std::mutex> table(m_pidMapMutex);
    return m_pidMap;
}

std::set<int> ProcessTable::Marks()
{
    const std::lock_guard<std::mutex> marks(m_ignorePidSetMutex);
    return m_ignorePidSet;
}

void ProcessTable::ForgetMarks()
{
    const std::lock_guard<std::mutex> marks(m_ignorePidSetMutex);
    m_ignorePidSet.clear();
}

void ProcessTable::Add(int pid, const ProcessInfo& info)
{
    const std::lock_guard<std::mutex> table(m_pidMapMutex);
    m_pidMap[pid] = info;
}

void ProcessTable::Remove(int pid)
{
    const std::lock_guard<std::mutex> table(m_pidMapMutex);
    m_pidMap.erase(pid);
}

void ProcessTable::KillAndMarkAll()
{
    const std::lock_guard<std::mutex> marks(m_ignorePidSetMutex);
    const std::lock_guard<std::mutex> table(m_pidMapMutex);
    for (const auto& entry : m_pidMap) {
        m_ignorePidSet.insert(entry.first);
        ::kill(entry.first, SIGKILL);
    }
}

bool ProcessTable::EndAll()
{
    // Slows the monitor while it holds no lock. Otherwise a monitor that relaunches without a pause keeps the marks'
    // lock.
    const BeforeEach wait(Call::WAITID, [](int) { std::this_thread::sleep_for(std::chrono::milliseconds(20)); });
    return Eventually(RunningItems::PATIENCE, [] {
        // A relaunch finds a program that exits at once and is not relaunched.
        for (const auto& entry : Entries()) {
            WriteProgram(entry.second.execPath, "#!/bin/sh\nexit 0\n");
        }
        KillAndMarkAll();
        return Eventually(std::chrono::milliseconds(200), [] { return Entries().empty() && !m_isMonitorRunning; });
    });
}

void ProcessTable::EndAllWithoutMonitor()
{
    for (const auto& entry : Entries()) {
        ::kill(entry.first, SIGKILL);
        ::waitpid(entry.first, nullptr, 0);
        Remove(entry.first);
    }
    m_isMonitorRunning = false;
}

RunningItems::RunningItems()
{
    // The launch of a library reads the application's configuration.
    static auto& application = *new Poco::Util::Application;
    application.config().setString("global.server_submodule_dir", outside.Path().string());
    ::setenv("PROBE_DIR", outside.Path().c_str(), 1);
    ::setenv("PROBE_THEN", "run", 1);
    log.Restart();
}

RunningItems::~RunningItems()
{
    EXPECT_TRUE(ProcessTable::EndAll());
}

RunningItems::ActivatorPtr RunningItems::Make(const BundleBuilder& builder)
{
    return std::make_shared<Activator>(std::make_shared<Bundle>(std::make_shared<BundleStorageDir>(builder.Write())));
}

RunningItems::ActivatorPtr RunningItems::Start(const BundleBuilder& builder)
{
    ActivatorPtr activator = Make(builder);
    activator->Start();
    return activator;
}

void RunningItems::Launch(const std::string& path, const std::string& bundleName)
{
    const std::string item = path.substr(path.rfind('/') + 1);
    Activator::ProcessInfo info{bundleName, bundleName + "." + item, path, item, ""};
    Activator::Launch(info);
}

std::string RunningItems::ExitingAtTrigger(int status) const
{
    const std::string trigger = outside / "trigger";
    const std::string shot = outside / "shot";
    return "#!/bin/sh\n[ -e " + shot + " ] && exec sleep 60\nfor i in $(seq 3000); do\n  if [ -e " + trigger +
           " ]; then touch " + shot + "; exit " + std::to_string(status) + "; fi\n  sleep 0.02\ndone\n";
}

void RunningItems::PullTrigger() const
{
    WriteFile(outside / "trigger", "");
}

int RunningItems::PidOf(const std::string& processName)
{
    int pid = 0;
    for (const auto& entry : ProcessTable::Entries()) {
        pid = entry.second.processName == processName ? entry.first : pid;
    }
    return pid;
}

bool RunningItems::IsLogged(const std::string& message, int times) const
{
    return Eventually(PATIENCE, [&] { return log.Count(message) >= times; });
}

bool RunningItems::MonitorEnds() const
{
    return Eventually(PATIENCE, [] { return !ProcessTable::IsMonitorRunning(); });
}

std::vector<std::string> RunningItems::ProbeReport(const std::string& name) const
{
    const std::string path = outside / name;
    EXPECT_TRUE(Eventually(PATIENCE, [&] { return Exists(path); })) << "the probe item has not run";
    std::istringstream text(ReadFile(path));
    std::vector<std::string> lines;
    for (std::string line; std::getline(text, line);) {
        lines.push_back(line);
    }
    return lines;
}

std::vector<std::string> RunningItems::Reported(const std::string& name, const std::string& word) const
{
    std::vector<std::string> values;
    for (const std::string& line : ProbeReport(name)) {
        if (line.rfind(word + " ", 0) == 0) {
            values.push_back(line.substr(word.size() + 1));
        }
    }
    return values;
}
