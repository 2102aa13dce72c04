#include "bundle_thread_activator.h"

#include "bundle_log.h"
#include "item_kind.h"
#include "termination_signals.h"

#include <Poco/Exception.h>

#include <cxxabi.h>
#include <dlfcn.h>
#if __has_include(<gnu/lib-names.h>)
#include <gnu/lib-names.h>
#endif
#include <pthread.h>
#include <sys/prctl.h>

#include <algorithm>
#include <atomic>
#include <exception>
#include <system_error>
#include <thread>
#include <type_traits>
#include <utility>

namespace SystemServer {

static_assert(std::is_same<pthread_t, unsigned long>::value, "m_threadIds holds native thread handles");

namespace {

using EntryFunction = int (*)();

/// Discards the loader's error text. The records have never contained the reason, and programs that read them rely on
/// that.
const char* SecondLoaderError()
{
    dlerror();
    const char* const text = dlerror();
    return text != nullptr ? text : "(null)";
}

/// While it lives, the calling thread can be cancelled at its cancellation points. Before and after, a cancellation
/// stays pending: within the dynamic loader, a library's constructor or the log it would end the process.
class CancellationEnabled {
public:
    CancellationEnabled() { pthread_setcancelstate(PTHREAD_CANCEL_ENABLE, nullptr); }
    ~CancellationEnabled()
    {
        pthread_setcancelstate(PTHREAD_CANCEL_DISABLE, nullptr);
        pthread_setcanceltype(PTHREAD_CANCEL_DEFERRED, nullptr); // the entry function may have changed it
    }
    CancellationEnabled(const CancellationEnabled&) = delete;
    CancellationEnabled& operator=(const CancellationEnabled&) = delete;
};

int CallCancellable(EntryFunction entry)
{
    const CancellationEnabled enabled;
    pthread_testcancel(); // a thread that was cancelled before does not enter the function
    return entry();
}

/// The C library loads the unwinder at the first cancellation, under the dynamic loader's lock. If memory or
/// descriptors are short, it then ends the process. While a library's constructor runs, it waits for the constructor.
/// So a thread of ours is unwound first, before any library runs.
/// @throws Poco::InvalidArgumentException the unwinder cannot be loaded
/// @throws std::system_error the thread cannot be created
void PrepareCancellation(const std::string& itemName)
{
    static std::atomic<bool> isPrepared{false};
    if (isPrepared) {
        return;
    }
    // glibc defines the unwinder's name; other C libraries need none. The library stays open.
#ifdef LIBGCC_S_SO
    if (dlopen(LIBGCC_S_SO, RTLD_NOW) == nullptr) {
        const char* const reason = dlerror();
        throw Poco::InvalidArgumentException("item[" + itemName +
                                             "] thread fail: " + (reason != nullptr ? reason : LIBGCC_S_SO));
    }
#endif
    std::thread([] { pthread_exit(nullptr); }).join();
    isPrepared = true;
}

} // namespace

/// Removes the calling thread from the live threads when it ends, by return, exception or cancellation.
class BundleThreadActivator::LiveThread {
public:
    explicit LiveThread(BundleThreadActivator& activator) : m_activator(activator) {}
    ~LiveThread() { End(); }
    LiveThread(const LiveThread&) = delete;
    LiveThread& operator=(const LiveThread&) = delete;

private:
    // Separate from the destructor, because the annotation check does not examine destructors.
    void End() const EXCLUDES(m_activator.m_liveThreadsMutex)
    {
        const std::lock_guard<std::mutex> lock(m_activator.m_liveThreadsMutex);
        auto& live = m_activator.m_liveThreads;
        live.erase(std::remove(live.begin(), live.end(), pthread_self()), live.end());
    }

    BundleThreadActivator& m_activator;
};

BundleThreadActivator::BundleThreadActivator(std::shared_ptr<Bundle> bundle) : BundleActivator(std::move(bundle)) {}

BundleThreadActivator::~BundleThreadActivator() = default;

void BundleThreadActivator::Start()
{
    const std::shared_ptr<BundleManifest> manifest = m_bundle->GetManifest();
    for (const BundleManifest::LoadItem& item : manifest->GetLoadItems()) {
        if (KindOf(item.itemName) != ItemKind::LIBRARY) {
            // The placeholder stays unexpanded: programs that read the log match this text.
            throw Poco::InvalidArgumentException("item[%s] can not be loaded in thread mode.");
        }
        StartThread(manifest, item);
    }
}

void BundleThreadActivator::StartThread(const std::shared_ptr<BundleManifest>& manifest,
                                        const BundleManifest::LoadItem& item)
{
    const std::lock_guard<std::mutex> lock(m_liveThreadsMutex); // the thread cannot end before it counts as live
    m_threadIds.reserve(m_threadIds.size() + 1);
    m_liveThreads.reserve(m_liveThreads.size() + 1);
    try {
        const TerminationSignalsBlocked blocked;
        PrepareCancellation(item.itemName);
        // Holds the manifest, which owns the item, also across an update of the bundle.
        std::thread thread([self = shared_from_this(), manifest, &item] {
            pthread_setcancelstate(PTHREAD_CANCEL_DISABLE, nullptr); // no cancellation point comes before
            const LiveThread live(*self);
            self->RunItem(item);
        });
        m_threadIds.push_back(thread.native_handle());
        m_liveThreads.push_back(thread.native_handle());
        thread.detach();
    } catch (const std::system_error& e) {
        throw Poco::InvalidArgumentException("item[" + item.itemName + "] thread fail: " + e.what());
    }
}

// A failure on an item's thread concerns only that item. An exception that left the thread would end the server.
void BundleThreadActivator::RunItem(const BundleManifest::LoadItem& item)
{
    try {
        ActivateDynLib(item);
    } catch (const std::exception& e) {
        BUNDLE_ERROR("activate item[%s] fail. exception info: [%s].", item.itemName.c_str(), ReasonOf(e).c_str());
    }
}

void BundleThreadActivator::ActivateDynLib(const BundleManifest::LoadItem& item)
{
    const std::string bundleName = m_bundle->GetManifest()->GetBundleName();
    BUNDLE_INFO("bundle[%s] dyn lib[%s] activate start...", bundleName.c_str(), item.itemName.c_str());
    prctl(PR_SET_NAME, (bundleName + "." + item.itemName).c_str());

    const std::string file = m_bundle->ItemPath(item.itemName);
    void* const library = dlopen(file.c_str(), RTLD_LAZY); // stays open: its code may run on threads of its own
    if (library == nullptr) {
        BUNDLE_ERROR("open dynamic lib[%s] error : %s.", file.c_str(), SecondLoaderError());
        return;
    }
    void* const entry = dlsym(library, item.entryFunc.c_str());
    if (entry == nullptr) {
        BUNDLE_ERROR("find entry func[%s] fail:%s.", item.entryFunc.c_str(), SecondLoaderError());
        return;
    }
    CallEntryFunction(entry, bundleName, item);
}

// A forced unwind has no exception object. The handler never reads its reference, but the sanitizer would report a null
// reference.
__attribute__((no_sanitize("null"))) void BundleThreadActivator::CallEntryFunction(void* entry,
                                                                                   const std::string& bundleName,
                                                                                   const BundleManifest::LoadItem& item)
{
    try {
        if (CallCancellable(reinterpret_cast<EntryFunction>(entry)) == 0) {
            BUNDLE_INFO("bundle[%s] dyn lib[%s] activate done.", bundleName.c_str(), item.itemName.c_str());
        } else {
            BUNDLE_ERROR("entry func[%s] return fail.", item.entryFunc.c_str());
        }
    } catch (const abi::__forced_unwind&) {
        throw; // cancelled by Stop: the C library ends the process if a handler swallows this
    } catch (const std::exception& e) {
        BUNDLE_ERROR("entry func[%s] return fail. exception info: [%s].", item.entryFunc.c_str(), e.what());
    } catch (...) {
        BUNDLE_ERROR("entry func[%s] return fail. exception info: [unknown].", item.entryFunc.c_str());
    }
}

void BundleThreadActivator::Stop()
{
    for (const unsigned long id : m_threadIds) {
        BUNDLE_INFO("cancel tid[%lu]...", id);
        {
            const std::lock_guard<std::mutex> lock(m_liveThreadsMutex); // a live thread cannot end while it is held
            if (std::find(m_liveThreads.begin(), m_liveThreads.end(), id) != m_liveThreads.end()) {
                pthread_cancel(id);
            }
        }
        BUNDLE_INFO("cancel done.");
    }
}

} // namespace SystemServer
