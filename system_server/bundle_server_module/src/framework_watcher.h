#ifndef FRAMEWORK_WATCHER_H
#define FRAMEWORK_WATCHER_H

#include "common/unique_fd.h"

#include <Poco/DirectoryWatcher.h>

#include <string>
#include <vector>

/// Puts the framework's own watching to rest in a class that derives from its watcher. The kernel's notifications leave
/// out what a bundle server has to know, and would only cost descriptors and wake-ups.
namespace SystemServer {

/// @return path
/// @throws Poco::FileException the framework cannot look at what is there, and would say that nothing is
const std::string& RequireVisible(const std::string& path);

/// The process's descriptors for the kernel's notifications. Those found before the framework's watcher is made belong
/// to others.
/// @throws std::bad_alloc
std::vector<int> InotifyDescriptors();

/// Puts a pipe at its end in the place of the framework's descriptor: nothing will ever come from it, and no child
/// inherits it. The framework's thread ends its sleep, and stops when it is asked to.
/// @return the descriptor that stood there. Closing it takes the kernel some 20 ms, so a thread that has the time does
/// it
std::vector<Common::UniqueFd> DetachInotify(const std::vector<int>& othersDescriptors);

/// Gives the framework's watcher, whose thread has been joined, another one to join when it is destroyed. The thread
/// ends at once.
/// @throws Poco::SystemException the thread cannot be started
void StartIdleThread(Poco::DirectoryWatcher& watcher);

} // namespace SystemServer

#endif
