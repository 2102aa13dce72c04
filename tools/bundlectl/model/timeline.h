#ifndef BUNDLECTL_MODEL_TIMELINE_H
#define BUNDLECTL_MODEL_TIMELINE_H

#include "fact.h"
#include "history.h"
#include "installation.h"

#include <cstddef>
#include <map>
#include <optional>
#include <string>
#include <vector>

namespace Model {

/// A state of a bundle and how long it lasted.
struct TimelineState {
    BundleState state = BundleState::UNKNOWN;
    Time from;
    Time to;
};

/// Something that happened to a bundle at one moment.
struct TimelineMark {
    enum Kind {
        LAUNCH,
        RELAUNCH,
        END,     ///< an item has ended by itself or was stopped
        DEATH,   ///< a signal has killed an item
        FAILURE, ///< it was refused, or one of its steps failed
    };

    Kind kind = LAUNCH;
    Time time;
    std::string item; ///< empty: the bundle as a whole
    std::string text; ///< "SIGSEGV", "status 3", the reason of a failure
};

struct TimelineScript {
    std::string name;
    Time from;
    Time to;
    bool hasEnded = false; ///< false: still running at the end of the timeline
};

struct TimelineBundle {
    static constexpr std::size_t KEPT = 2000; ///< for states, marks and scripts each; bounds a crash loop

    std::string name; ///< the path when a directory was refused before its name was known
    std::vector<std::string> required;
    std::vector<TimelineState> states;
    std::vector<TimelineMark> marks;
    std::vector<TimelineScript> scripts;
    std::size_t omitted = 0; ///< number of dropped entries beyond that limit
    Microseconds cost{};     ///< the time in which the server was busy with this bundle alone
    bool isInChain = false;
};

/// The events of all bundles in a window of time.
struct Timeline {
    pid_t server = 0; ///< the last server in the window
    Time from;
    Time to;
    std::optional<Time> ready;           ///< the end of that server's start-up, if it is in the window
    std::vector<TimelineBundle> bundles; ///< in the order of their first appearance
    std::vector<std::string> chain;      ///< the slowest chain of bundles that waited for each other, first to last
    Microseconds chainCost{};
    std::vector<std::string> notes; ///< sentences for people: what could not be read

    const TimelineBundle* Find(const std::string& name) const;
};

/// Turns facts into a timeline.
class TimelineBuilder {
public:
    enum class Window {
        START_UP, ///< the last start-up whose beginning is in the log
        TIMES,    ///< everything between two moments
    };

    explicit TimelineBuilder(Window window) : m_window(window) {}

    void Take(const Fact& fact);

    /// The timeline. Without times: from the first fact to the last. Empty when the window has no facts, or a
    /// start-up's beginning is not in the log.
    std::optional<Timeline> Finish(std::optional<Time> from, std::optional<Time> to);

private:
    /// The server is busy with a bundle.
    struct Work {
        std::string key; ///< the bundle's name; while it is being loaded, its path
        Microseconds own{};
    };
    struct Worker {
        std::vector<Work> works; ///< the innermost last
        Time last;
    };

    TimelineBundle& BundleOf(const std::string& name);
    void Rename(const std::string& path, const std::string& name);
    void Begin(const Fact& fact, const std::string& key);
    void End(const Fact& fact, const std::string& key, const std::string& bundle);
    void SetState(TimelineBundle& bundle, BundleState state, Time time);
    void CloseStates(Time time);
    void TakeLoading(const Fact& fact);
    void TakeSteps(const Fact& fact);
    void TakeItem(const Fact& fact);
    void TakeScript(const Fact& fact);
    void StartServer(const Fact& fact);
    void FindChain();

    const Window m_window;
    Timeline m_timeline;
    bool m_hasBegun = false;
    bool m_isOver = false;
    std::map<std::string, std::size_t> m_numbers; ///< of the bundles, by name
    std::map<std::string, std::size_t> m_scripts; ///< running scripts by bundle: the number of the script
    std::map<pid_t, Worker> m_workers;
    std::vector<std::string> m_started; ///< in the order in which their starts ended
};

/// The input of ReadTimeline. Without times: the last start-up.
struct TimelineRequest {
    std::optional<Time> from;
    std::optional<Time> to;
    pid_t server = 0; ///< a running server: its start-up is used; 0: none
};

/// Reads a log into a timeline. Empty when the log has no facts in the window.
/// @param notes receives the notes of the timeline, also when the timeline is empty
std::optional<Timeline> ReadTimeline(const LogLocation& log, const TimelineRequest& request,
                                     std::vector<std::string>& notes);

} // namespace Model

#endif
