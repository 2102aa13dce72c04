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
        END,     ///< an item has ended by itself, or was stopped
        DEATH,   ///< a signal has killed an item
        FAILURE, ///< it was refused, or a step of it failed
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
    bool hasEnded = false; ///< false: it still ran at the end of the timeline
};

struct TimelineBundle {
    static constexpr std::size_t KEPT = 2000; ///< states, marks and scripts each, so that a crash loop fits in memory

    std::string name; ///< of a directory that was refused before its name was known: its path
    std::vector<std::string> required;
    std::vector<TimelineState> states;
    std::vector<TimelineMark> marks;
    std::vector<TimelineScript> scripts;
    std::size_t omitted = 0; ///< of all that, because there was too much
    Microseconds cost{};     ///< the time in which the server was busy with this bundle alone
    bool isInChain = false;
};

/// What happened to all bundles in a window of time.
struct Timeline {
    pid_t server = 0; ///< the last one in it
    Time from;
    Time to;
    std::optional<Time> ready;           ///< when the start-up of that server was over, unless that lies outside
    std::vector<TimelineBundle> bundles; ///< in the order in which they were first met
    std::vector<std::string> chain; ///< of bundles that waited for each other, the one that took longest; first to last
    Microseconds chainCost{};
    std::vector<std::string> notes; ///< sentences for people: what could not be read

    const TimelineBundle* Find(const std::string& name) const;
};

/// Turns facts into a timeline.
class TimelineBuilder {
public:
    enum class Window {
        START_UP, ///< the last start-up that is whole at its beginning
        TIMES,    ///< whatever lies between two moments
    };

    explicit TimelineBuilder(Window window) : m_window(window) {}

    void Take(const Fact& fact);

    /// The timeline. Without times: from the first fact to the last. Empty when the window has nothing: of a start-up,
    /// because its beginning is not in the log.
    std::optional<Timeline> Finish(std::optional<Time> from, std::optional<Time> to);

private:
    /// The server is busy with a bundle.
    struct Work {
        std::string key; ///< the bundle's name; while it is loaded, its path
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
    std::map<std::string, std::size_t> m_scripts; ///< that run, by bundle: the number of the script
    std::map<pid_t, Worker> m_workers;
    std::vector<std::string> m_started; ///< in the order of their ends, which is that of who waits for whom
};

/// What is asked of ReadTimeline. Without times: the last start-up.
struct TimelineRequest {
    std::optional<Time> from;
    std::optional<Time> to;
    pid_t server = 0; ///< a server that runs: the start-up meant is its own; 0: none
};

/// Reads a log into a timeline. Empty when the log has nothing of the window.
std::optional<Timeline> ReadTimeline(const LogLocation& log, const TimelineRequest& request);

} // namespace Model

#endif
