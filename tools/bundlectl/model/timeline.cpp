#include "timeline.h"

#include "log_access.h"
#include "log_reader.h"
#include "reason.h"

#include <algorithm>
#include <utility>

namespace Model {

namespace {

template <class Entry> void AddTo(std::vector<Entry>& entries, Entry entry, std::size_t& omitted)
{
    if (entries.size() < TimelineBundle::KEPT) {
        entries.push_back(std::move(entry));
    } else {
        ++omitted;
    }
}

void AddMark(TimelineBundle& bundle, TimelineMark::Kind kind, const Fact& fact, std::string text)
{
    AddTo(bundle.marks, {kind, fact.time, fact.item, std::move(text)}, bundle.omitted);
}

std::string EndText(const Fact& fact)
{
    ItemEnd end;
    end.isSignal = fact.kind == Fact::ITEM_KILLED;
    end.number = fact.number;
    return NameOfEnd(end);
}

/// Removes what is outside the window, and cuts what crosses its edges.
void Cut(TimelineBundle& bundle, Time from, Time to)
{
    const auto cut = [from, to](auto& spans) {
        spans.erase(std::remove_if(spans.begin(), spans.end(),
                                   [from, to](const auto& span) { return span.to < from || span.from > to; }),
                    spans.end());
        for (auto& span : spans) {
            span.from = std::max(span.from, from);
            span.to = std::min(span.to, to);
        }
    };
    cut(bundle.states);
    cut(bundle.scripts);
    bundle.marks.erase(
        std::remove_if(bundle.marks.begin(), bundle.marks.end(),
                       [from, to](const TimelineMark& mark) { return mark.time < from || mark.time > to; }),
        bundle.marks.end());
}

bool IsEmpty(const TimelineBundle& bundle)
{
    return bundle.states.empty() && bundle.marks.empty() && bundle.scripts.empty();
}

} // namespace

const TimelineBundle* Timeline::Find(const std::string& name) const
{
    const auto found = std::find_if(bundles.begin(), bundles.end(),
                                    [&name](const TimelineBundle& bundle) { return bundle.name == name; });
    return found == bundles.end() ? nullptr : &*found;
}

TimelineBundle& TimelineBuilder::BundleOf(const std::string& name)
{
    const auto [place, isNew] = m_numbers.emplace(name, m_timeline.bundles.size());
    if (isNew) {
        m_timeline.bundles.emplace_back();
        m_timeline.bundles.back().name = name;
    }
    return m_timeline.bundles[place->second];
}

// A directory is named by its path until its bundle's name is known: its install script runs before that.
void TimelineBuilder::Rename(const std::string& path, const std::string& name)
{
    const auto place = m_numbers.find(path);
    if (place == m_numbers.end() || m_numbers.count(name) != 0) {
        return;
    }
    m_timeline.bundles[place->second].name = name;
    m_numbers[name] = place->second;
    m_numbers.erase(place);
}

// The time of a server's thread counts for the innermost bundle: while a bundle starts the bundles that it requires, it
// waits for them.
void TimelineBuilder::Begin(const Fact& fact, const std::string& key)
{
    Worker& worker = m_workers[fact.thread];
    if (!worker.works.empty()) {
        worker.works.back().own += fact.time - worker.last;
    }
    worker.last = fact.time;
    worker.works.push_back({key, {}});
}

void TimelineBuilder::End(const Fact& fact, const std::string& key, const std::string& bundle)
{
    Worker& worker = m_workers[fact.thread];
    const bool isKnown =
        std::any_of(worker.works.begin(), worker.works.end(), [&key](const Work& work) { return work.key == key; });
    // A failure also ends the steps that were begun inside it.
    for (bool isDone = !isKnown; !isDone;) {
        Work work = std::move(worker.works.back());
        worker.works.pop_back();
        work.own += fact.time - worker.last;
        worker.last = fact.time;
        isDone = work.key == key;
        BundleOf(isDone ? bundle : work.key).cost += std::max(work.own, Microseconds(0));
    }
}

void TimelineBuilder::SetState(TimelineBundle& bundle, BundleState state, Time time)
{
    if (!bundle.states.empty() && bundle.states.back().to == Time::max()) {
        bundle.states.back().to = time;
    }
    if (state != BundleState::GONE) {
        AddTo(bundle.states, {state, time, Time::max()}, bundle.omitted);
    }
}

void TimelineBuilder::CloseStates(Time time)
{
    for (TimelineBundle& bundle : m_timeline.bundles) {
        SetState(bundle, BundleState::GONE, time);
        for (TimelineScript& script : bundle.scripts) {
            script.to = std::min(script.to, time);
        }
    }
}

void TimelineBuilder::StartServer(const Fact& fact)
{
    if (m_window == Window::START_UP) {
        m_timeline = Timeline();
        m_numbers.clear();
        m_timeline.from = fact.time;
    } else if (m_hasBegun) {
        CloseStates(m_timeline.to);
    } else {
        m_timeline.from = fact.time;
    }
    m_isOver = false;
    m_hasBegun = true;
    m_timeline.server = fact.server;
    m_timeline.ready.reset();
    m_workers.clear();
    m_scripts.clear();
    m_started.clear();
}

void TimelineBuilder::Take(const Fact& fact)
{
    if (fact.kind == Fact::SERVER_STARTED) {
        StartServer(fact);
    } else if (m_window == Window::TIMES && !m_hasBegun) {
        m_hasBegun = true;
        m_timeline.from = fact.time;
        m_timeline.server = fact.server;
    }
    const bool isOther = m_window == Window::START_UP && fact.server != m_timeline.server;
    if (!m_hasBegun || m_isOver || isOther) {
        return;
    }
    m_timeline.to = fact.time;
    if (fact.kind == Fact::SERVER_READY) {
        m_timeline.ready = fact.time;
        m_isOver = m_window == Window::START_UP;
        return;
    }
    TakeLoading(fact);
    TakeSteps(fact);
    TakeScript(fact);
    if (!fact.bundle.empty()) {
        TakeItem(fact);
    }
}

void TimelineBuilder::TakeLoading(const Fact& fact)
{
    switch (fact.kind) {
    case Fact::LOADING:
        Begin(fact, fact.path);
        break;
    case Fact::LOADED: {
        Rename(fact.path, fact.bundle);
        End(fact, fact.path, fact.bundle);
        TimelineBundle& bundle = BundleOf(fact.bundle);
        bundle.required = fact.manifest != nullptr ? fact.manifest->required : std::vector<std::string>();
        SetState(bundle, BundleState::INSTALLED, fact.time);
        break;
    }
    case Fact::LOAD_REFUSED: {
        // A duplicate has the name of the existing bundle.
        const std::string& name = fact.bundle.empty() || m_numbers.count(fact.bundle) != 0 ? fact.path : fact.bundle;
        Rename(fact.path, name);
        End(fact, fact.path, name);
        AddMark(BundleOf(name), TimelineMark::FAILURE, fact, fact.text);
        break;
    }
    case Fact::UNLOADED:
        SetState(BundleOf(fact.bundle), BundleState::GONE, fact.time);
        break;
    default:
        break;
    }
}

void TimelineBuilder::TakeSteps(const Fact& fact)
{
    switch (fact.kind) {
    case Fact::RESOLVE_BEGAN:
    case Fact::START_BEGAN:
        Begin(fact, fact.bundle);
        break;
    case Fact::START_ENDED:
        m_started.push_back(fact.bundle);
        [[fallthrough]];
    case Fact::RESOLVE_ENDED:
        End(fact, fact.bundle, fact.bundle);
        break;
    case Fact::STATE_CHANGED:
        SetState(BundleOf(fact.bundle), StateOf(fact.text), fact.time);
        break;
    case Fact::RESOLVE_FAILED:
    case Fact::START_FAILED:
        End(fact, fact.bundle, fact.bundle);
        [[fallthrough]];
    case Fact::HOT_START_FAILED:
    case Fact::STOP_FAILED:
    case Fact::UPDATE_FAILED:
    case Fact::UNLOAD_FAILED:
        AddMark(BundleOf(fact.bundle), TimelineMark::FAILURE, fact, fact.text);
        break;
    default:
        break;
    }
}

void TimelineBuilder::TakeItem(const Fact& fact)
{
    switch (fact.kind) {
    case Fact::ITEM_LAUNCHED:
        AddMark(BundleOf(fact.bundle), fact.number == 1 ? TimelineMark::RELAUNCH : TimelineMark::LAUNCH, fact, "");
        break;
    case Fact::THREAD_STARTED:
        AddMark(BundleOf(fact.bundle), TimelineMark::LAUNCH, fact, "thread");
        break;
    case Fact::THREAD_ENDED:
        AddMark(BundleOf(fact.bundle), TimelineMark::END, fact, "its function has returned");
        break;
    case Fact::ITEM_EXITED:
        AddMark(BundleOf(fact.bundle), TimelineMark::END, fact, EndText(fact));
        break;
    case Fact::ITEM_KILLED:
        AddMark(BundleOf(fact.bundle), TimelineMark::DEATH, fact, EndText(fact));
        break;
    case Fact::EXECUTE_FAILED:
    case Fact::THREAD_FAILED:
        AddMark(BundleOf(fact.bundle), TimelineMark::FAILURE, fact,
                fact.kind == Fact::THREAD_FAILED ? fact.text : "cannot be executed");
        break;
    default:
        break;
    }
}

void TimelineBuilder::TakeScript(const Fact& fact)
{
    const std::string& name = fact.bundle.empty() ? fact.path : fact.bundle;
    if (fact.kind == Fact::SCRIPT_BEGAN) {
        TimelineBundle& bundle = BundleOf(name);
        m_scripts[name] = bundle.scripts.size();
        AddTo(bundle.scripts, {fact.text, fact.time, Time::max()}, bundle.omitted);
    } else if (fact.kind == Fact::SCRIPT_ENDED) {
        // An install script runs before the bundle's name is known.
        for (const std::string& key : {name, fact.path}) {
            const auto running = m_scripts.find(key);
            if (running == m_scripts.end()) {
                continue;
            }
            std::vector<TimelineScript>& scripts = BundleOf(key).scripts;
            if (running->second < scripts.size()) {
                scripts[running->second].to = fact.time;
                scripts[running->second].hasEnded = true;
            }
            m_scripts.erase(running);
        }
    }
}

// A bundle is started after the bundles that it requires, so one pass in the order of the ends of their starts is
// enough. Only the first start counts: after an update, a bundle may require one that was started later, and the chain
// would be a circle.
void TimelineBuilder::FindChain()
{
    struct Sum {
        Microseconds cost{};
        std::string before;
    };
    std::map<std::string, Sum> sums;
    std::string longest;
    for (const std::string& name : m_started) {
        if (sums.count(name) != 0) {
            continue;
        }
        const TimelineBundle& bundle = BundleOf(name);
        Sum sum;
        for (const std::string& required : bundle.required) {
            const auto other = sums.find(required);
            if (other != sums.end() && (sum.before.empty() || other->second.cost > sum.cost)) {
                sum = {other->second.cost, required};
            }
        }
        sum.cost += bundle.cost;
        sums[name] = sum;
        if (longest.empty() || sum.cost > sums[longest].cost) {
            longest = name;
        }
    }
    m_timeline.chainCost = sums[longest].cost;
    for (std::string name = longest; !name.empty(); name = sums[name].before) {
        BundleOf(name).isInChain = true;
        m_timeline.chain.push_back(name);
    }
    std::reverse(m_timeline.chain.begin(), m_timeline.chain.end());
}

std::optional<Timeline> TimelineBuilder::Finish(std::optional<Time> from, std::optional<Time> to)
{
    if (!m_hasBegun) {
        return std::nullopt;
    }
    if (!m_started.empty()) {
        FindChain();
    }
    // A window does not begin before the log does.
    m_timeline.from = std::max(from.value_or(m_timeline.from), m_timeline.from);
    m_timeline.to = std::max(to.value_or(m_timeline.to), m_timeline.from);
    for (TimelineBundle& bundle : m_timeline.bundles) {
        Cut(bundle, m_timeline.from, m_timeline.to);
    }
    auto& bundles = m_timeline.bundles;
    bundles.erase(std::remove_if(bundles.begin(), bundles.end(), IsEmpty), bundles.end());
    if (m_timeline.ready && (*m_timeline.ready < m_timeline.from || *m_timeline.ready > m_timeline.to)) {
        m_timeline.ready.reset();
    }
    return std::move(m_timeline);
}

std::optional<Timeline> ReadTimeline(const LogLocation& log, const TimelineRequest& request,
                                     std::vector<std::string>& notes)
{
    const bool hasTimes = request.from || request.to;
    TimelineBuilder builder(hasTimes ? TimelineBuilder::Window::TIMES : TimelineBuilder::Window::START_UP);
    Attribution attribution([&builder, &request](const Fact& fact) {
        if (!request.to || fact.time <= *request.to) {
            builder.Take(fact);
        }
    });
    // The states at the beginning of a window follow from the events before it.
    LogReader reader(OpenLog(log, {std::nullopt, hasTimes ? 0 : request.server}));
    ReadAll(reader, attribution);
    std::optional<Timeline> timeline = builder.Finish(request.from, request.to);
    notes = reader.Troubles();
    if (timeline) {
        timeline->notes = notes;
    }
    return timeline;
}

} // namespace Model
