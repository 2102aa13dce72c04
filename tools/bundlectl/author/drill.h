#ifndef BUNDLECTL_AUTHOR_DRILL_H
#define BUNDLECTL_AUTHOR_DRILL_H

#include "drill_census.h"
#include "drill_exercises.h"
#include "drilled_bundle.h"

#include <cstddef>
#include <functional>
#include <map>
#include <optional>
#include <string>
#include <vector>

namespace Trials {

/// The result of an exercise.
struct DrillResult {
    enum Outcome { PASSED, FAILED, LEFT_OUT };

    std::string item; ///< empty: the whole bundle
    std::string name; ///< of the exercise
    Outcome outcome = PASSED;
    std::string text; ///< what happened, in sentences
    Model::Microseconds took{};
    std::optional<Model::Microseconds> relaunch; ///< from the item's end to its next launch
    std::vector<std::string> processesLeft;      ///< "sleep (process 31)"
    std::size_t descriptorsLeft = 0;
    std::vector<std::string> filesDamaged;

    void Pass(const std::string& what) { text += (text.empty() ? "" : " ") + what; }
    void Fail(const std::string& what)
    {
        outcome = FAILED;
        Pass(what);
    }
    void LeaveOut(const std::string& why)
    {
        outcome = LEFT_OUT;
        Pass(why);
    }
};

/// Harms a running bundle, and checks that the server and the bundle do what is promised.
class Drill {
public:
    using Milliseconds = std::chrono::milliseconds;

    struct Settings {
        std::vector<Exercise> exercises;
        std::string item;  ///< the only item that is drilled; empty: all items
        std::string check; ///< a command that fails when the bundle's data are damaged; empty: none
        Milliseconds patience{10'000};
        Milliseconds settle{500}; ///< how long an item must stay up
    };
    using Sink = std::function<void(const DrillResult&)>;

    /// @param sink called with each result at once
    Drill(DrilledBundle& bundle, Settings settings, Sink sink);

    /// @throws DrillEnded
    void Run();

private:
    using Moment = DrilledBundle::Moment;
    using Item = DrilledBundle::Item;
    using Body = std::function<void(DrillResult&)>;

    /// The state before an exercise.
    struct Before {
        std::vector<Stray> strays;
        std::size_t serversDescriptors = 0;
        std::map<std::string, std::uintmax_t> files;
        std::vector<Item> items;
    };

    void Do(const Exercise& exercise, const std::string& item, const Body& body);
    void DoToItems(const Exercise& exercise);
    bool MakeUp();
    void WaitForLaunches();
    Before TakeBefore();
    void Examine(const Before& before, DrillResult& result);
    bool DataAreGood() const;

    // drill_items.cpp
    /// A description of how an item has ended since then.
    std::string EndAfter(const std::string& name, Model::Time time);
    void LeaveAlone(const std::string& name, DrillResult& result);
    void EndItem(const Exercise& exercise, const std::string& name, DrillResult& result);
    /// @return the new process; 0: the item does not run
    pid_t ExpectRelaunch(const Item& before, const Model::ItemEnd& end, DrillResult& result);
    void ExpectRest(const Item& before, const Model::ItemEnd& end, DrillResult& result);
    void CompareDescriptors(pid_t pid, std::size_t before, DrillResult& result);

    // drill_threads.cpp
    bool IsOfThreads();
    void LeaveThreadAlone(const std::string& name, DrillResult& result);
    /// What ends a thread of the server ends the server.
    void EndServer(const Exercise& exercise, DrillResult& result);
    /// Ends the server and starts it again.
    void RenewServer();
    /// The items whose thread from before goes on beside the new one.
    std::vector<std::string> ThreadsLeft(const std::vector<Item>& before);

    // drill_surroundings.cpp
    void SlowUpdate(DrillResult& result);
    void SlowInstallation(DrillResult& result);
    void RemoveLibraries(const Exercise& exercise);
    void RemoveLibrary(const std::string& library, DrillResult& result);
    void ExchangeBundle(DrillResult& result);
    void FillLog(DrillResult& result);
    /// @param isBack whether the killed item runs again
    void KillOneMeanwhile(const std::string& when, const std::function<bool(const Moment&, const Item&)>& isBack,
                          DrillResult& result);

    DrilledBundle& m_bundle;
    const Settings m_settings;
    const Sink m_sink;
};

/// The directory of the server's log in a drill. It is a separate file system, small enough to be filled.
void MountDrillLog(const std::string& directory);

} // namespace Trials

#endif
