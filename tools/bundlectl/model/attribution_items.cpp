// Interprets the records about items, with one function for each.
#include "attribution.h"

namespace Model {

namespace {

using Step = AttributionStep;

void OnChildIsTold(Step& step)
{
    const pid_t pid = step.event.Number(0);
    ChildContext child;
    const bool isRelaunch = step.thread.isRelaunching;
    if (isRelaunch) {
        child = step.thread.deadChild;
    } else if (!step.thread.bundles.empty()) {
        child.bundle = step.thread.bundles.back();
        const auto bundle = step.server.bundles.find(child.bundle);
        if (bundle != step.server.bundles.end() && step.thread.nextItem < bundle->second.items.size()) {
            child.item = bundle->second.items[step.thread.nextItem];
        }
        ++step.thread.nextItem;
    }
    step.bundle = child.bundle;
    step.server.children[pid] = child;
    step.TellItem(Fact::ITEM_LAUNCHED, child, pid, isRelaunch ? 1 : 0);
}

// From now on, another child may get the pid.
void OnEnd(Step& step, Fact::Kind kind)
{
    const pid_t pid = step.event.Number(1);
    const ChildContext child = step.ChildOf(pid, step.event.arguments[0]);
    step.bundle = child.bundle;
    step.thread.dead = pid;
    step.thread.deadChild = child;
    step.thread.isRelaunching = false;
    step.server.children.erase(pid);
    step.TellItem(kind, child, pid, step.event.Number(2));
}

void OnAfterEnd(Step& step, Fact::Kind kind)
{
    step.bundle = step.thread.deadChild.bundle;
    step.TellItem(kind, step.thread.deadChild, step.thread.dead);
    step.thread.isRelaunching = kind == Fact::ITEM_RELAUNCHES;
}

void OnRelaunched(Step& step)
{
    step.bundle = step.thread.deadChild.bundle;
    step.thread.isRelaunching = false;
}

void OnStopsItem(Step& step)
{
    step.bundle = step.Argument(0);
    step.server.children[step.event.Number(2)] = {step.bundle, step.Argument(1)};
}

void OnThreadStarts(Step& step)
{
    step.bundle = step.Argument(0);
    step.thread = ThreadContext();
    step.thread.bundles = {step.bundle};
    step.thread.item = step.Argument(1);
    step.TellItem(Fact::THREAD_STARTED, {step.bundle, step.thread.item}, 0);
}

void TellThread(Step& step, Fact::Kind kind)
{
    Fact fact = step.NewFact(kind);
    fact.bundle = step.thread.bundles.empty() ? std::string() : step.thread.bundles.back();
    fact.item = step.thread.item;
    fact.text = kind == Fact::THREAD_FAILED ? std::string(step.record.message) : std::string();
    step.bundle = fact.bundle;
    step.Tell(fact);
}

template <Fact::Kind KIND> void TellPlainly(Step& step)
{
    step.Tell(step.NewFact(KIND));
}
template <Fact::Kind KIND> void OnItemsEnd(Step& step)
{
    OnEnd(step, KIND);
}
template <Fact::Kind KIND> void OnItemsNext(Step& step)
{
    OnAfterEnd(step, KIND);
}
template <Fact::Kind KIND> void OnThread(Step& step)
{
    TellThread(step, KIND);
}
void OnMonitorDied(Step& step)
{
    Fact fact = step.NewFact(Fact::MONITOR_DIED);
    fact.number = step.event.Number(0);
    step.Tell(fact);
}

} // namespace

const Meaning ITEM_MEANINGS[] = {
    {EventKind::ACTIVATOR_STARTS, [](Step& step) { step.thread.nextItem = 0; }},
    {EventKind::STOPS_ITEM, OnStopsItem},
    {EventKind::CHILD_IS_TOLD, OnChildIsTold},
    {EventKind::EXITED, OnItemsEnd<Fact::ITEM_EXITED>},
    {EventKind::KILLED, OnItemsEnd<Fact::ITEM_KILLED>},
    {EventKind::STOP_EXPECTED, OnItemsNext<Fact::ITEM_STOPPED>},
    {EventKind::RELAUNCHES, OnItemsNext<Fact::ITEM_RELAUNCHES>},
    {EventKind::NEEDS_RELAUNCH, OnItemsNext<Fact::ITEM_RELAUNCHES>},
    {EventKind::RELAUNCHED, OnRelaunched},
    {EventKind::RESTS, OnItemsNext<Fact::ITEM_RESTS>},
    {EventKind::MONITOR_STARTED, TellPlainly<Fact::MONITOR_STARTED>},
    {EventKind::MONITOR_ENDED, TellPlainly<Fact::MONITOR_ENDED>},
    {EventKind::MONITOR_DIED, OnMonitorDied},
    {EventKind::THREAD_STARTS, OnThreadStarts},
    {EventKind::THREAD_DONE, OnThread<Fact::THREAD_ENDED>},
    {EventKind::LIBRARY_FAILED, OnThread<Fact::THREAD_FAILED>},
    {EventKind::ENTRY_MISSING, OnThread<Fact::THREAD_FAILED>},
    {EventKind::ENTRY_FAILED, OnThread<Fact::THREAD_FAILED>},
    {EventKind::THREAD_FAILED, OnThread<Fact::THREAD_FAILED>},
    {EventKind::NONE, nullptr},
};

} // namespace Model
