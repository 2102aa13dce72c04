#ifndef FRAMEWORK_WATCHER_H
#define FRAMEWORK_WATCHER_H

#include "common/unique_fd.h"

#include <Poco/DirectoryWatcher.h>

#include <string>
#include <vector>

/// Disables the framework's own watching in a class that derives from its watcher. The kernel's notifications miss
/// changes that the server has to know, and would only cost descriptors and wake-ups.
namespace SystemServer {

/// @return path
/// @throws Poco::FileException the framework cannot examine the path, and would say that it does not exist
const std::string& RequireVisible(const std::string& path);

/// The process's descriptors for the kernel's notifications. Descriptors that exist before the framework's watcher is
/// made belong to other code.
/// @throws std::bad_alloc
std::vector<int> InotifyDescriptors();

/// Replaces the framework's descriptor by a pipe without a writer. No data ever comes from it, and no child inherits
/// it. The framework's thread ends its sleep, and stops when it is asked to.
/// @return the former descriptor. Closing it takes the kernel about 20 ms, so a thread that has the time does it
std::vector<Common::UniqueFd> DetachInotify(const std::vector<int>& othersDescriptors);

/// Gives the framework's watcher another thread to join when it is destroyed, because its own thread has been joined.
/// The new thread ends at once.
/// @throws Poco::SystemException the thread cannot be started
void StartIdleThread(Poco::DirectoryWatcher& watcher);

} // namespace SystemServer

#endif
