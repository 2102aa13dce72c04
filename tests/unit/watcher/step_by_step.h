#ifndef TESTS_UNIT_WATCHER_STEP_BY_STEP_H
#define TESTS_UNIT_WATCHER_STEP_BY_STEP_H

#include "unit/watcher/watched_collection.h"

#include <algorithm>
#include <atomic>
#include <cstddef>
#include <filesystem>
#include <functional>
#include <string>
#include <vector>

/// A bundle that the watcher knows, and steps that are taken one after the other, each between two scans.
class StepByStep : public WatchingACollection {
protected:
    using Step = std::function<void()>;

    void SetUp() override
    {
        MakeBundle(In("radio"));
        WriteFile(In("radio") + "/bin/scand", "x");
        for (int i = 0; i < 20; ++i) {
            WriteFile(In("radio") + "/data/" + std::to_string(i), "");
        }
        Watch();
        recorder.PassScans(2); // the first one counts what is there
    }

    /// The events in their order, "step" for each step. The steps are taken in the handlers of plain files.
    Events EventsOfSteps(const std::vector<Step>& steps)
    {
        recorder.Forget();
        const int first = m_files;
        const auto nextFile = [this] { return In("step-" + std::to_string(m_files++)); };
        recorder.SetHandler([&](const std::string& event) {
            const std::size_t done = static_cast<std::size_t>(m_files - first) - 1;
            if (event.rfind("added step-", 0) == 0 && done < steps.size()) {
                steps[done]();
                WriteFile(nextFile(), "");
            }
        });
        const std::string last = "added step-" + std::to_string(first + static_cast<int>(steps.size()));
        WriteFile(nextFile(), "");
        EXPECT_TRUE(recorder.WaitFor(last));
        recorder.PassScans(4);
        recorder.SetHandler({});
        Events events = recorder.Noted();
        for (std::string& event : events) {
            event = event.rfind("added step-", 0) == 0 ? "step" : event;
        }
        return events;
    }

    /// The events of so many steps, and then the others.
    static Events After(std::size_t steps, const Events& events)
    {
        Events all(steps + 1, "step");
        all.insert(all.end(), events.begin(), events.end());
        return all;
    }

    static Events WithoutSteps(Events events)
    {
        events.erase(std::remove(events.begin(), events.end(), "step"), events.end());
        return events;
    }

    Step Removing(const std::string& name) const
    {
        return [path = In("radio") + "/" + name] { EXPECT_TRUE(std::filesystem::remove(path)) << path; };
    }
    Step Appending() const
    {
        return [path = In("radio") + "/data/stations"] { AppendFile(path, "two\n"); };
    }

private:
    std::atomic<int> m_files{0};
};

#endif
