#ifndef BUNDLE_THREAD_ACTIVATOR_H
#define BUNDLE_THREAD_ACTIVATOR_H

#include "bundle_activator.h"
#include "thread_annotations.h"

#include <memory>
#include <mutex>
#include <string>
#include <vector>

namespace SystemServer {

/// Runs a bundle's items inside the server: each item is a dynamic library whose entry function is called on a thread
/// of its own. The threads are detached and not supervised; each keeps this object, and with it the bundle, alive until
/// it ends. Held by shared pointers only.
class BundleThreadActivator : public BundleActivator, public std::enable_shared_from_this<BundleThreadActivator> {
public:
    /// Starts nothing.
    explicit BundleThreadActivator(std::shared_ptr<Bundle> bundle);
    ~BundleThreadActivator() override;

    /// Returns when the threads are started. Later failures appear only in the log.
    /// @throws Poco::InvalidArgumentException an item is no dynamic library, or its thread cannot be created
    void Start() override;

    /// Asks every thread that still runs to end, and does not wait. A request takes effect at a cancellation point of
    /// the item's entry function. If it comes before the function, the function is not called. If it comes after the
    /// function, it has no effect.
    void Stop() override EXCLUDES(m_liveThreadsMutex);

protected:
    std::vector<unsigned long> m_threadIds; ///< native handles in start order; under the manager's lock

private:
    class LiveThread;

    void StartThread(const std::shared_ptr<BundleManifest>& manifest, const BundleManifest::LoadItem& item)
        EXCLUDES(m_liveThreadsMutex);
    void RunItem(const BundleManifest::LoadItem& item);
    void ActivateDynLib(const BundleManifest::LoadItem& item);
    void CallEntryFunction(void* entry, const std::string& bundleName, const BundleManifest::LoadItem& item);

    // Only these handles may be used: the handle of an ended thread may already belong to another thread.
    std::mutex m_liveThreadsMutex;
    std::vector<unsigned long> m_liveThreads GUARDED_BY(m_liveThreadsMutex);
};

} // namespace SystemServer

#endif
