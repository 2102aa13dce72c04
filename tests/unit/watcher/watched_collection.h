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

/// What a watcher raises, as "added radio", "modified radio", "removed radio", in its order.
///
/// Time is counted in scans, not in seconds: a plain file whose name begins with "scan-" is dropped into the collection
/// and the event of its coming awaited. Those events are left out of what is told.
class Recorder {
public:
    using Handler = std::function<void(const std::string& event)>;

    explicit Recorder(std::string collection) : m_collection(std::move(collection)) {}

    void Subscribe(Poco::DirectoryWatcher& watcher);

    /// Called on the watcher's thread with each event, those of the passing scans included, after it has been noted.
    void SetHandler(Handler handler);

    Events Noted() const;
    void Forget();

    /// Returns when so many scans have begun and ended. Fails the test when they do not.
    void PassScans(int count);

    /// Does something while no scan runs, so that a single scan finds all of it: on the watcher's thread, in a handler.
    void BetweenTwoScans(const std::function<void()>& action);

    /// Whether the event comes within a generous time. Its handler has then returned.
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

/// A collection, a directory beside it on the same file system, and a watcher that looks many times a second.
class WatchingACollection : public ::testing::Test {
public:
    static constexpr std::chrono::milliseconds INTERVAL{60};
    /// Longer than a tool that writes in place is kept waiting by a busy machine.
    static constexpr std::chrono::milliseconds UNHURRIED{200 * SLOWNESS};
    static constexpr std::chrono::seconds PATIENCE{30};

    WatchingACollection();
    void TearDown() override { watcher.reset(); }

    /// Makes the watcher; what is in the collection before is known to it.
    void Watch(std::chrono::milliseconds interval = INTERVAL);

    /// A bundle with a manifest, "bin", "script" and folders of its own, beside the collection or in it.
    std::string MakeBundle(const std::string& path) const;
    std::string Aside(const std::string& name) const { return aside / name; }
    std::string In(const std::string& name) const { return collection / name; }

    void BetweenTwoScans(const std::function<void()>& action) { recorder.BetweenTwoScans(action); }
    void BetweenTwoScans(const std::string& command);

    /// What is raised after that, when everything has come to rest.
    Events EventsOf(const std::function<void()>& action);
    Events EventsOf(const std::string& command);
    Events EventsBetweenTwoScans(const std::function<void()>& action);
    Events EventsBetweenTwoScans(const std::string& command);

    TemporaryDirectory collection;
    TemporaryDirectory aside;
    LogCapture log;
    Recorder recorder;
    /// The first to go: its handler uses the rest. A test whose handler uses the test's own variables takes it away.
    std::unique_ptr<SystemServer::BundleDirWatcher> watcher;
};

/// Returns when the kernel's clock, which dates changes, is past the last change of path. Waits also when the clock has
/// been set back meanwhile.
void AwaitTickAfter(const std::string& path);

#endif
