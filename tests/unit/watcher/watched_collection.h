#ifndef TESTS_UNIT_WATCHER_WATCHED_COLLECTION_H
#define TESTS_UNIT_WATCHER_WATCHED_COLLECTION_H

#include "support/eventually.h"
#include "support/files.h"
#include "support/log_capture.h"
#include "support/shell.h"
#include "support/slowness.h"
#include "support/temporary_directory.h"

#include <bundle_dir_watcher.h>

#include <gtest/gtest.h>

#include <chrono>
#include <condition_variable>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

using Events = std::vector<std::string>;

/// The events that a watcher raises, in their order, as "added radio", "modified radio", "removed radio".
///
/// Tests wait for scans, not for seconds: a plain file whose name begins with "scan-" is written into the collection,
/// and its addition awaited. Those events are not recorded.
class Recorder {
public:
    using Handler = std::function<void(const std::string& event)>;

    explicit Recorder(std::string collection) : m_collection(std::move(collection)) {}

    void Subscribe(Poco::DirectoryWatcher& watcher);

    /// Sets what is called with each event, on the watcher's thread, after it is recorded. It gets those of "scan-"
    /// too.
    void SetHandler(Handler handler);

    Events Noted() const;
    void Forget();

    /// Waits until so many scans have begun and ended. Fails the test when they do not.
    void PassScans(int count);

    /// Runs an action between two scans, in a handler, so that a single scan finds all of its changes.
    void BetweenTwoScans(const std::function<void()>& action);

    /// Whether the event is raised in time. Its handler has returned then.
    bool WaitFor(const std::string& event);

private:
    void OnAdded(const Poco::DirectoryWatcher::DirectoryEvent& event) { Note("added", event); }
    void OnRemoved(const Poco::DirectoryWatcher::DirectoryEvent& event) { Note("removed", event); }
    void OnModified(const Poco::DirectoryWatcher::DirectoryEvent& event) { Note("modified", event); }
    void Note(const char* what, const Poco::DirectoryWatcher::DirectoryEvent& event);

    const std::string m_collection;
    mutable std::mutex m_mutex;
    std::condition_variable m_noted;
    Events m_events;
    Events m_handled;
    int m_scans = 0;
    std::function<void()> m_action;
    Handler m_handler;
};

/// A collection, a directory beside it on the same file system, and a watcher that scans many times a second.
class WatchingACollection : public ::testing::Test {
public:
    static constexpr std::chrono::milliseconds INTERVAL{60};
    /// Longer than a busy machine interrupts a tool that writes in place.
    static constexpr std::chrono::milliseconds UNHURRIED{200 * SLOWNESS};
    static constexpr std::chrono::seconds PATIENCE{30};

    WatchingACollection();
    void TearDown() override { watcher.reset(); }

    /// Makes the watcher. It knows what is in the collection already.
    void Watch(std::chrono::milliseconds interval = INTERVAL);

    /// A bundle with a manifest, "bin", "script" and folders of its own, beside the collection or in it.
    std::string MakeBundle(const std::string& path) const;
    std::string Aside(const std::string& name) const { return aside / name; }
    std::string In(const std::string& name) const { return collection / name; }

    void BetweenTwoScans(const std::function<void()>& action) { recorder.BetweenTwoScans(action); }
    void BetweenTwoScans(const std::string& command);

    /// The events of an action, once no more are due.
    Events EventsOf(const std::function<void()>& action);
    Events EventsOf(const std::string& command);
    Events EventsBetweenTwoScans(const std::function<void()>& action);
    Events EventsBetweenTwoScans(const std::string& command);

    TemporaryDirectory collection;
    TemporaryDirectory aside;
    LogCapture log;
    Recorder recorder;
    /// Destroyed first, because its handler uses the other members. A test whose handler uses local variables resets
    /// it.
    std::unique_ptr<SystemServer::BundleDirWatcher> watcher;
};

/// Returns when the kernel's clock, which dates changes, is past the last change of path. Waits also when the clock has
/// been set back meanwhile.
void AwaitTickAfter(const std::string& path);

#endif
