#ifndef BUNDLECTL_AUTHOR_PRIVATE_RUN_H
#define BUNDLECTL_AUTHOR_PRIVATE_RUN_H

#include <chrono>
#include <functional>
#include <stdexcept>
#include <string>

/// Bundles are tried in namespaces of their own: process numbers, mounts and, without root, users. The kernel ends
/// every process of them and takes every mount away when their first process ends, however it ends.
namespace Trials {

/// This machine does not permit such namespaces. The text says what does.
class NotPermitted : public std::runtime_error {
public:
    using std::runtime_error::runtime_error;
};

/// What the action may use: a directory in memory that goes with the namespaces.
constexpr const char PRIVATE_DIRECTORY[] = "/mnt/bundlectl";

/// Runs an action as the first process of new namespaces, with an empty /mnt/bolt, an own /proc and an empty
/// PRIVATE_DIRECTORY. Everything else is this machine's. SIGINT, SIGTERM, SIGHUP and SIGQUIT ask the action to end; a
/// second one ends it. The action ends with this process as well, also when that is killed. Only a process with a
/// single thread may call it, once.
/// @return what the action returns
/// @throws NotPermitted
int RunPrivately(const std::function<int()>& action);

/// In the action: waits for a moment.
/// @return false as soon as the action has been asked to end
bool Pause(std::chrono::milliseconds moment);

/// In the action: ends every other process of the namespaces, by SIGTERM and after the grace by SIGKILL, and takes
/// the dead.
void EndAllProcesses(std::chrono::milliseconds grace);

} // namespace Trials

#endif
