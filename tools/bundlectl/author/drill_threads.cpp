// The exercises on items that are threads of the server.
#include "drill.h"
#include "forced_exit.h"
#include "model/proc.h"

#include <algorithm>
#include <csignal>

namespace Trials {

bool Drill::IsOfThreads()
{
    return m_bundle.Look().IsOfThreads();
}

void Drill::LeaveThreadAlone(const std::string& name, DrillResult& result)
{
    constexpr Milliseconds oneLook(1000);
    constexpr int looks = 3;
    std::size_t descriptors = CountDescriptors(m_bundle.Server());
    const std::size_t first = descriptors;
    bool grows = true;
    for (int look = 0; look < looks; ++look) {
        m_bundle.Wait(oneLook);
        const std::size_t now = CountDescriptors(m_bundle.Server());
        grows = grows && now > descriptors;
        descriptors = now;
    }
    const Moment after = m_bundle.Look();
    const Item* const item = after.Find(name);
    if (item == nullptr || !item->isUp) {
        result.Fail("It has ended by itself, with a failure.");
        return;
    }
    result.Pass(item->pid != 0 ? "It runs on a thread of the server." : "Its function has returned.");
    if (grows) {
        result.Fail("The server's descriptors become more each second, from " + std::to_string(first) + " to " +
                    std::to_string(descriptors) + ".");
    }
}

void Drill::EndServer(const Exercise& exercise, DrillResult& result)
{
    constexpr Milliseconds toEnd(3000);
    const pid_t server = m_bundle.Server();
    if (exercise.kind == Exercise::STATUS && !CanForceExit()) {
        result.LeaveOut("On this processor no process can be made to exit with a status.");
        return;
    }
    const bool isDone =
        exercise.kind == Exercise::SIGNAL ? ::kill(server, exercise.number) == 0 : ForceExit(server, exercise.number);
    if (!isDone) {
        result.LeaveOut("The server cannot be made to end so: it may not be traced, or makes no system call.");
        return;
    }
    const std::string end = m_bundle.WaitForServersEnd(toEnd);
    if (end.empty()) {
        result.Pass("The server goes on running.");
        return;
    }
    result.Pass("It ends the server, with " + end + ", and so the threads of all bundles. Nothing supervises threads.");
    const Model::Time begin = Model::Now();
    if (m_bundle.StartServer(m_settings.patience)) {
        result.Pass("A new server has it up after " + Model::SpanText(Model::Now() - begin) + ".");
    } else {
        result.Fail("It is not up after a new start of the server.");
    }
}

void Drill::RenewServer()
{
    constexpr Milliseconds toEnd(3000);
    ::kill(m_bundle.Server(), SIGTERM);
    if (m_bundle.WaitForServersEnd(toEnd).empty()) {
        ::kill(m_bundle.Server(), SIGKILL);
        m_bundle.WaitForServersEnd(toEnd);
    }
    m_bundle.StartServer(m_settings.settle + toEnd);
}

std::vector<std::string> Drill::ThreadsLeft(const std::vector<Item>& before)
{
    const std::vector<Model::ProcessStat> threads = Model::Proc().Threads(m_bundle.Server());
    const Moment now = m_bundle.Look();
    std::vector<std::string> left;
    for (const Item& former : before) {
        const Item* const item = now.Find(former.name);
        const bool isReplaced = former.isThread && former.pid != 0 && item != nullptr && item->pid != former.pid;
        const bool isThere = std::any_of(threads.begin(), threads.end(), [&former](const Model::ProcessStat& thread) {
            return thread.pid == former.pid;
        });
        if (isReplaced && isThere) {
            left.push_back(former.name);
        }
    }
    return left;
}

} // namespace Trials
