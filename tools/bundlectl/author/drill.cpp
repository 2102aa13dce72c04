#include "drill.h"

#include <unistd.h>

#include <algorithm>
#include <cstdlib>
#include <utility>

namespace Trials {

namespace {

using Clock = std::chrono::steady_clock;

constexpr std::chrono::milliseconds STEP(50);
/// The time that an item's processes may take to end, and a file may take to be rewritten.
constexpr int STEPS = 20;

} // namespace

Drill::Drill(DrilledBundle& bundle, Settings settings, Sink sink)
    : m_bundle(bundle), m_settings(std::move(settings)), m_sink(std::move(sink))
{}

void Drill::Run()
{
    for (const Exercise& exercise : m_settings.exercises) {
        const bool endsItem = exercise.kind == Exercise::SIGNAL || exercise.kind == Exercise::STATUS;
        if (endsItem && IsOfThreads()) {
            Do(exercise, "", [this, &exercise](DrillResult& result) { EndServer(exercise, result); });
        } else if (exercise.IsOfItem()) {
            DoToItems(exercise);
        } else if (exercise.kind == Exercise::LIBRARY) {
            RemoveLibraries(exercise);
        } else {
            Do(exercise, "", [this, &exercise](DrillResult& result) {
                switch (exercise.kind) {
                case Exercise::EXCHANGE:
                    return ExchangeBundle(result);
                case Exercise::FULL_LOG:
                    return FillLog(result);
                default:
                    return exercise.name == "slow-script:update" ? SlowUpdate(result) : SlowInstallation(result);
                }
            });
        }
    }
}

void Drill::DoToItems(const Exercise& exercise)
{
    for (const Item& item : m_bundle.Look().items) {
        if (!m_settings.item.empty() && m_settings.item != item.name) {
            continue;
        }
        Do(exercise, item.name, [&](DrillResult& result) {
            if (exercise.kind != Exercise::UNDISTURBED) {
                EndItem(exercise, item.name, result);
            } else if (item.isThread) {
                LeaveThreadAlone(item.name, result);
            } else {
                LeaveAlone(item.name, result);
            }
        });
    }
}

void Drill::Do(const Exercise& exercise, const std::string& item, const Body& body)
{
    DrillResult result;
    result.item = item;
    result.name = exercise.name;
    const auto begin = Clock::now();
    if (!MakeUp()) {
        result.Fail("The bundle is not up before it, and a restart does not help.");
    } else {
        if (item.empty()) {
            WaitForLaunches();
        }
        const Before before = TakeBefore();
        body(result);
        Examine(before, result);
    }
    result.took = std::chrono::duration_cast<Model::Microseconds>(Clock::now() - begin);
    m_sink(result);
}

/// Before the next exercise, starts the items that rest after this one.
bool Drill::MakeUp()
{
    constexpr Milliseconds moment(200);
    return m_bundle.WaitUntil([](const Moment& now) { return now.isUp; }, moment) ||
           m_bundle.Restart(m_settings.patience + m_settings.patience);
}

/// During a launch, which takes a second, a bundle whose item has died cannot be stopped.
void Drill::WaitForLaunches()
{
    constexpr Milliseconds launch(1500);
    m_bundle.WaitUntil(
        [launch](const Moment& now) {
            return std::all_of(now.items.begin(), now.items.end(), [launch](const Item& item) {
                return !item.since || Model::Now() - *item.since > launch;
            });
        },
        launch + launch);
}

Drill::Before Drill::TakeBefore()
{
    return {FindStrays(m_bundle.Server()), CountDescriptors(m_bundle.Server()), DataFiles(m_bundle.Path()),
            m_bundle.Look().items};
}

void Drill::Examine(const Before& before, DrillResult& result)
{
    std::vector<Stray> strays;
    std::vector<std::string> threads;
    for (int step = 0; step < STEPS; ++step) {
        strays = NewStrays(before.strays, FindStrays(m_bundle.Server()));
        result.filesDamaged = DamagedFiles(before.files, DataFiles(m_bundle.Path()));
        threads = ThreadsLeft(before.items);
        if (strays.empty() && result.filesDamaged.empty() && threads.empty()) {
            break;
        }
        m_bundle.Wait(STEP);
    }
    for (const Stray& stray : strays) {
        result.processesLeft.push_back(stray.name + " (process " + std::to_string(stray.pid) + ")");
        result.Fail("It leaves a process behind: " + result.processesLeft.back() + ".");
    }
    EndStrays(strays);
    for (const std::string& item : threads) {
        result.Fail("The former thread of " + item + " goes on beside the new one: it cannot be cancelled.");
    }
    for (const std::string& file : result.filesDamaged) {
        result.Fail("The file " + file + " has lost its content.");
    }
    const std::size_t descriptors = CountDescriptors(m_bundle.Server());
    if (descriptors > before.serversDescriptors) {
        result.descriptorsLeft += descriptors - before.serversDescriptors;
        result.Fail("The server has " + std::to_string(result.descriptorsLeft) +
                    (result.descriptorsLeft == 1 ? " descriptor" : " descriptors") + " more than before.");
    }
    if (!DataAreGood()) {
        result.Fail("The check of the data fails.");
    }
}

bool Drill::DataAreGood() const
{
    if (m_settings.check.empty()) {
        return true;
    }
    ::setenv("BUNDLE", m_bundle.Path().c_str(), 1);
    return std::system(("cd \"$BUNDLE\" && (" + m_settings.check + "\n) >&2").c_str()) == 0;
}

} // namespace Trials
