// The exercises on items that are processes.
#include "drill.h"
#include "forced_exit.h"
#include "model/end_name.h"

#include <csignal>

namespace Trials {

namespace {

std::string EndedWith(const Model::ItemEnd& end)
{
    return "It ended with " + Model::NameOfEnd(end.isSignal, end.number);
}

} // namespace

// A process disappears a moment before the server logs its end.
std::string Drill::EndAfter(const std::string& name, Model::Time time)
{
    constexpr Milliseconds toLog(2000);
    std::string end = "in a way that the log does not tell";
    m_bundle.WaitUntil(
        [&](const Moment& now) {
            const Item* const item = now.Find(name);
            const bool isThere = item != nullptr && !item->ends.empty() && item->ends.back().time > time;
            end = isThere ? "with " + Model::NameOfEnd(item->ends.back().isSignal, item->ends.back().number) : end;
            return isThere;
        },
        toLog);
    return end;
}

void Drill::LeaveAlone(const std::string& name, DrillResult& result)
{
    constexpr Milliseconds oneLook(1000);
    constexpr int looks = 3;
    const Model::Time begin = Model::Now();
    const Moment moment = m_bundle.Look();
    const pid_t pid = moment.Find(name)->pid;
    std::size_t descriptors = CountDescriptors(pid);
    const std::size_t first = descriptors;
    bool grows = true;
    for (int look = 0; look < looks; ++look) {
        m_bundle.Wait(oneLook);
        const std::size_t now = CountDescriptors(pid);
        grows = grows && now > descriptors;
        descriptors = now;
    }
    const Moment after = m_bundle.Look();
    const Item* const item = after.Find(name);
    if (item == nullptr || item->pid != pid || !item->isUp) {
        result.Fail("It ended by itself " + EndAfter(name, begin) + ".");
        return;
    }
    result.Pass("It runs, with " + std::to_string(descriptors) + " descriptors.");
    if (grows) {
        result.descriptorsLeft = descriptors - first;
        result.Fail("They become more each second.");
    }
}

void Drill::EndItem(const Exercise& exercise, const std::string& name, DrillResult& result)
{
    constexpr Milliseconds toEnd(3000);
    const Moment moment = m_bundle.Look();
    const Item before = *moment.Find(name);
    const std::size_t descriptors = CountDescriptors(before.pid);
    if (exercise.kind == Exercise::STATUS && !CanForceExit()) {
        result.LeaveOut("On this processor no process can be made to exit with a status.");
        return;
    }
    const bool isDone = exercise.kind == Exercise::SIGNAL ? ::kill(before.pid, exercise.number) == 0
                                                          : ForceExit(before.pid, exercise.number);
    if (!isDone) {
        result.LeaveOut("It cannot be made to end so: it may not be traced, or makes no system call.");
        return;
    }
    Model::ItemEnd end;
    const bool hasEnded = m_bundle.WaitUntil(
        [&](const Moment& now) {
            const Item* const item = now.Find(name);
            const Model::ItemEnd* const found = item == nullptr ? nullptr : item->EndOf(before.pid);
            end = found == nullptr ? Model::ItemEnd() : *found;
            return found != nullptr;
        },
        toEnd);
    if (!hasEnded && IsAlive(before.pid)) {
        result.Pass("It goes on running.");
    } else if (!hasEnded) {
        result.Fail("It ended, and the server does not notice it.");
    } else if (IsRunAgain(end.isSignal, end.number)) {
        CompareDescriptors(ExpectRelaunch(before, end, result), descriptors, result);
    } else {
        ExpectRest(before, end, result);
    }
}

pid_t Drill::ExpectRelaunch(const Item& before, const Model::ItemEnd& end, DrillResult& result)
{
    const bool isLaunched = m_bundle.WaitUntil(
        [&before](const Moment& now) {
            const Item* const item = now.Find(before.name);
            return item != nullptr && item->launches > before.launches;
        },
        m_settings.patience);
    if (!isLaunched) {
        result.Fail(EndedWith(end) + ", and was not run again.");
        return 0;
    }
    constexpr Milliseconds toExecute(5000);
    pid_t pid = 0;
    m_bundle.WaitUntil(
        [&](const Moment& now) {
            const Item* const item = now.Find(before.name);
            pid = item != nullptr && item->isUp ? item->pid : 0;
            return pid != 0 || (item != nullptr && item->ends.back().pid != before.pid);
        },
        toExecute);
    m_bundle.Wait(m_settings.settle);
    const Moment after = m_bundle.Look();
    const Item* const item = after.Find(before.name);
    if (item == nullptr || !item->isUp || item->pid != pid || item->launches > before.launches + 1) {
        result.Fail(EndedWith(end) + ", was run again, and then ended " + EndAfter(before.name, end.time) + ".");
        return 0;
    }
    if (item->since) {
        result.relaunch = *item->since - end.time;
    }
    result.Pass(EndedWith(end) + ", and was run again" +
                (result.relaunch ? " after " + Model::SpanText(*result.relaunch) : std::string()) + ".");
    return pid;
}

void Drill::ExpectRest(const Item& before, const Model::ItemEnd& end, DrillResult& result)
{
    m_bundle.Wait(m_settings.settle);
    const Moment now = m_bundle.Look();
    const Item* const item = now.Find(before.name);
    if (item != nullptr && (item->isUp || item->launches > before.launches)) {
        result.Fail(EndedWith(end) + ", and was run again.");
    } else {
        result.Pass(EndedWith(end) + ", and rests.");
    }
}

// The ended process was older, so it had time to open the files that it needs.
void Drill::CompareDescriptors(pid_t pid, std::size_t before, DrillResult& result)
{
    const std::size_t now = pid == 0 ? 0 : CountDescriptors(pid);
    if (before != 0 && now > before) {
        result.descriptorsLeft += now - before;
        result.Fail("The new process has " + std::to_string(now) + " descriptors, the one before had " +
                    std::to_string(before) + ".");
    }
}

} // namespace Trials
