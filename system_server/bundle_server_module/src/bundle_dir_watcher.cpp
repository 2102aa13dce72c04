#include "bundle_dir_watcher.h"

#include "bundle_log.h"
#include "common/unique_fd.h"
#include "framework_watcher.h"
#include "termination_signals.h"

#include <Poco/File.h>
#include <Poco/Path.h>

#include <sys/prctl.h>

#include <ctime>
#include <exception>
#include <new>
#include <utility>

namespace SystemServer {

using Common::UniqueFd;

namespace {

/// A younger change may be incomplete: an editor empties a file before it writes it. The value is several ticks of the
/// kernel's clock. Two changes within one tick can look the same.
constexpr std::chrono::milliseconds SETTLING_TIME(50);

std::string DirectoryPrefix(const std::string& path)
{
    Poco::Path prefix(path);
    prefix.makeDirectory();
    return prefix.toString();
}

} // namespace

BundleDirWatcher::BundleDirWatcher(const std::string& path, std::chrono::milliseconds interval)
    : BundleDirWatcher(path, interval, InotifyDescriptors())
{}

BundleDirWatcher::BundleDirWatcher(const std::string& path, std::chrono::milliseconds interval,
                                   const std::vector<int>& othersDescriptors)
    : DirectoryWatcher(RequireVisible(path), DW_ITEM_ADDED | DW_ITEM_REMOVED | DW_ITEM_MODIFIED, 1),
      m_prefix(DirectoryPrefix(path)), m_interval(interval)
{
    const TerminationSignalsBlocked blocked; // for both threads; the framework's own code blocks them later
    std::vector<UniqueFd> detached = DetachInotify(othersDescriptors);
    stop(); // the framework's thread
    StartIdleThread(*this);
    m_scan.Find();
    m_thread = std::thread([this, firstScan = Clock::now() + m_interval, detached = std::move(detached)]() mutable {
        detached.clear();
        Follow(firstScan);
    });
}

BundleDirWatcher::~BundleDirWatcher()
{
    m_scan.Stop();
    m_stop.set_value();
    m_thread.join();
}

void BundleDirWatcher::Follow(Clock::time_point firstScan)
{
    prctl(PR_SET_NAME, "bundle_watcher");
    for (auto next = firstScan; WaitUntil(next);) {
        // Counted from now, not from when this scan was due: an item at rest between two scans is at rest for the whole
        // interval.
        next = Clock::now() + m_interval;
        try {
            RaiseChanges();
            m_scan.CountNames();
        } catch (const std::exception& e) { // out of memory; a later scan finds the changes that were not raised
            BUNDLE_ERROR("bundle collection dir[%s] can not be followed: %s. The next look at it tries again.",
                         m_prefix.c_str(), ReasonOf(e).c_str());
        }
    }
}

void BundleDirWatcher::RaiseChanges()
{
    for (const CollectionChange& change : m_scan.Find()) {
        if (!LetSettle(change)) {
            return;
        }
        const Poco::File item(m_prefix + change.name); // before the change counts as raised, because this may fail
        if (!m_scan.Take(change)) {
            continue;
        }
        Raise(change.kind, item);
        if (change.kind == CollectionChange::Kind::REMOVED) {
            m_scan.EndRemoval(change.name);
        }
    }
}

// False when the watcher is being destroyed.
bool BundleDirWatcher::WaitUntil(Clock::time_point time) const
{
    return m_stopRequested.wait_until(time) == std::future_status::timeout;
}

// False when the watcher is being destroyed.
bool BundleDirWatcher::LetSettle(const CollectionChange& change) const
{
    timespec now{};
    clock_gettime(CLOCK_REALTIME, &now);
    const std::chrono::nanoseconds age(Nanoseconds(now) - change.time);
    const bool isYoung = age.count() >= 0 && age < SETTLING_TIME;
    return WaitUntil(isYoung ? Clock::now() + SETTLING_TIME - age : Clock::now());
}

void BundleDirWatcher::Raise(CollectionChange::Kind kind, const Poco::File& file)
{
    try {
        switch (kind) {
        case CollectionChange::Kind::ADDED:
            itemAdded(this, DirectoryEvent(file, DW_ITEM_ADDED));
            break;
        case CollectionChange::Kind::REMOVED:
            itemRemoved(this, DirectoryEvent(file, DW_ITEM_REMOVED));
            break;
        case CollectionChange::Kind::MODIFIED:
            itemModified(this, DirectoryEvent(file, DW_ITEM_MODIFIED));
            break;
        }
    } catch (const std::exception& e) {
        BUNDLE_ERROR("handler of [%s] fail. exception info: [%s].", file.path().c_str(), ReasonOf(e).c_str());
    } catch (...) {
        BUNDLE_ERROR("handler of [%s] fail.", file.path().c_str());
    }
}

BundleDirWatcher::Withdrawal::Withdrawal(BundleDirWatcher& watcher, std::string path)
    : m_scan(watcher.m_scan), m_path(std::move(path))
{
    m_scan.Withdraw(m_path);
}

BundleDirWatcher::Withdrawal::~Withdrawal()
{
    try {
        m_scan.EndWithdrawal(m_path, m_hasBegun);
    } catch (const std::bad_alloc&) { // the removal has begun; the next scan finds its result
    }
}

} // namespace SystemServer
