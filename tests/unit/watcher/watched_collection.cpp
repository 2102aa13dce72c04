#include "unit/watcher/watched_collection.h"

#include <Poco/Delegate.h>

#include <sys/stat.h>

#include <algorithm>
#include <atomic>
#include <cstdlib>
#include <ctime>
#include <filesystem>
#include <utility>

using SystemServer::BundleDirWatcher;

namespace {

constexpr const char SCAN_FILE[] = "scan-";
constexpr std::chrono::seconds SCAN_PATIENCE{30};
/// A copy is complete after two scans, a refused item is raised again after three, and one scan may be under way.
constexpr int SCANS_TO_REST = 4;

} // namespace

void Recorder::Subscribe(Poco::DirectoryWatcher& watcher)
{
    watcher.itemAdded += Poco::delegate(this, &Recorder::OnAdded);
    watcher.itemRemoved += Poco::delegate(this, &Recorder::OnRemoved);
    watcher.itemModified += Poco::delegate(this, &Recorder::OnModified);
}

void Recorder::SetHandler(Handler handler)
{
    const std::lock_guard<std::mutex> lock(m_mutex);
    m_handler = std::move(handler);
}

void Recorder::Note(const char* what, const Poco::DirectoryWatcher::DirectoryEvent& event)
{
    const std::string path = event.item.path();
    const bool isInCollection = path.rfind(m_collection + "/", 0) == 0;
    const std::string name = isInCollection ? path.substr(m_collection.size() + 1) : path;
    const std::string text = what + (" " + name);
    std::function<void()> action;
    Handler handler;
    {
        const std::lock_guard<std::mutex> lock(m_mutex);
        if (name.rfind(SCAN_FILE, 0) != 0) {
            m_events.push_back(text);
        } else if (event.event == Poco::DirectoryWatcher::DW_ITEM_ADDED) {
            action = std::exchange(m_action, nullptr);
        }
        handler = m_handler;
    }
    if (action) {
        action();
    }
    if (handler) {
        handler(text);
    }
    const std::lock_guard<std::mutex> lock(m_mutex);
    m_handled.push_back(text);
    if (name.rfind(SCAN_FILE, 0) == 0 && event.event == Poco::DirectoryWatcher::DW_ITEM_ADDED) {
        ++m_scans;
    }
    m_noted.notify_all();
}

Events Recorder::Noted() const
{
    const std::lock_guard<std::mutex> lock(m_mutex);
    return m_events;
}

void Recorder::Forget()
{
    const std::lock_guard<std::mutex> lock(m_mutex);
    m_events.clear();
    m_handled.clear();
}

void Recorder::PassScans(int count)
{
    static std::atomic<int> number{0};
    for (; count > 0; --count) {
        std::unique_lock<std::mutex> lock(m_mutex);
        const int before = m_scans;
        lock.unlock();
        const std::string path = m_collection + "/" + SCAN_FILE + std::to_string(++number);
        // Not opened: tests count the descriptors of the watcher meanwhile.
        ASSERT_EQ(::mknod(path.c_str(), S_IFREG | S_IRUSR | S_IWUSR, 0), 0) << path;
        lock.lock();
        const bool hasPassed = m_noted.wait_for(lock, SCAN_PATIENCE, [&] { return m_scans > before; });
        lock.unlock();
        ASSERT_TRUE(hasPassed) << "no scan in time";
        std::error_code ignored; // the action may have moved the collection away
        std::filesystem::remove(path, ignored);
    }
}

void Recorder::BetweenTwoScans(const std::function<void()>& action)
{
    {
        const std::lock_guard<std::mutex> lock(m_mutex);
        m_action = action;
    }
    PassScans(1);
}

bool Recorder::WaitFor(const std::string& event)
{
    std::unique_lock<std::mutex> lock(m_mutex);
    return m_noted.wait_for(lock, SCAN_PATIENCE,
                            [&] { return std::find(m_handled.begin(), m_handled.end(), event) != m_handled.end(); });
}

WatchingACollection::WatchingACollection() : recorder(collection.Path().string())
{
    ::setenv("COLLECTION", collection.Path().c_str(), 1);
    ::setenv("ASIDE", aside.Path().c_str(), 1);
}

void WatchingACollection::Watch(std::chrono::milliseconds interval)
{
    watcher.reset();
    watcher = std::make_unique<BundleDirWatcher>(collection.Path().string(), interval);
    recorder.Subscribe(*watcher);
}

std::string WatchingACollection::MakeBundle(const std::string& path) const
{
    for (const char* const folder : {"bin", "script", "data", "log"}) {
        std::filesystem::create_directories(path + "/" + folder);
    }
    WriteFile(path + "/bin/tunerd", std::string(5000, 'x'));
    WriteFile(path + "/script/install.sh", "#!/bin/sh\n");
    WriteFile(path + "/data/stations", "one\n");
    WriteFile(path + "/BundleManifest.ini", "[global]\nbundle_name = radio\nbundle_load_mode = 0\n");
    return path;
}

void WatchingACollection::BetweenTwoScans(const std::string& command)
{
    BetweenTwoScans([&command] { RunShell(command); });
}

Events WatchingACollection::EventsOf(const std::function<void()>& action)
{
    recorder.Forget();
    action();
    recorder.PassScans(SCANS_TO_REST);
    return recorder.Noted();
}

Events WatchingACollection::EventsOf(const std::string& command)
{
    return EventsOf([&command] { RunShell(command); });
}

Events WatchingACollection::EventsBetweenTwoScans(const std::function<void()>& action)
{
    return EventsOf([&] { BetweenTwoScans(action); });
}

Events WatchingACollection::EventsBetweenTwoScans(const std::string& command)
{
    return EventsBetweenTwoScans([&command] { RunShell(command); });
}

void AwaitTickAfter(const std::string& path)
{
    struct stat status {};
    ASSERT_EQ(::stat(path.c_str(), &status), 0);
    EXPECT_TRUE(Eventually(std::chrono::seconds(5), [&status] {
        timespec now{};
        ::clock_gettime(CLOCK_REALTIME_COARSE, &now);
        return std::make_pair(now.tv_sec, now.tv_nsec) > std::make_pair(status.st_ctim.tv_sec, status.st_ctim.tv_nsec);
    }));
}
