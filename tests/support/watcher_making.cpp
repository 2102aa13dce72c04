#include "support/watcher_making.h"

#include "bundle_dir_watcher.h"

#include <chrono>
#include <string>
#include <utility>

using SystemServer::BundleDirWatcher;

namespace {

bool g_isSleepy = false;
std::function<void()> g_whenMade;

} // namespace

SleepyWatchers::SleepyWatchers(std::function<void()> whenMade)
{
    g_isSleepy = true;
    g_whenMade = std::move(whenMade);
}

SleepyWatchers::~SleepyWatchers()
{
    g_isSleepy = false;
    g_whenMade = nullptr;
}

// The linker redirects the watcher's constructor to this function. On ARM a constructor returns the object.
void RealMaking(BundleDirWatcher* self, const std::string& path,
                std::chrono::milliseconds interval) __asm__("__real_" WATCHER_MAKING);
BundleDirWatcher* WrappedMaking(BundleDirWatcher* self, const std::string& path,
                                std::chrono::milliseconds interval) __asm__("__wrap_" WATCHER_MAKING);

BundleDirWatcher* WrappedMaking(BundleDirWatcher* self, const std::string& path, std::chrono::milliseconds interval)
{
    RealMaking(self, path, g_isSleepy ? std::chrono::hours(1) : interval);
    if (g_whenMade) {
        g_whenMade();
    }
    return self;
}
