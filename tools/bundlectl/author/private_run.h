#ifndef BUNDLECTL_AUTHOR_PRIVATE_RUN_H
#define BUNDLECTL_AUTHOR_PRIVATE_RUN_H

#include <chrono>
#include <functional>
#include <stdexcept>
#include <string>

/// Bundles are tried in their own namespaces: process numbers, mounts and, without root, users. When the first process
/// ends in any way, the kernel ends every process of the namespaces and removes every mount.
namespace Trials {

/// This machine does not permit such namespaces. The text says how to permit them.
class NotPermitted : public std::runtime_error {
public:
    using std::runtime_error::runtime_error;
};

/// A directory in memory for the action. It disappears with the namespaces.
constexpr const char PRIVATE_DIRECTORY[] = "/mnt/bundlectl";

/// Runs an action as the first process of new namespaces, with an empty /mnt/bolt, its own /proc and an empty
/// PRIVATE_DIRECTORY. Everything else is shared with this machine. SIGINT, SIGTERM, SIGHUP and SIGQUIT ask the action
/// to end. A second signal ends it. The action also ends when this process ends or is killed. Only a process with a
/// single thread may call it, and only once.
/// @return the action's result
/// @throws NotPermitted
int RunPrivately(const std::function<int()>& action);

/// In the action: waits for a moment.
/// @return false as soon as the action has been asked to end
bool Pause(std::chrono::milliseconds moment);

/// In the action: ends every other process of the namespaces, by SIGTERM and after the grace period by SIGKILL, and
/// reaps them.
void EndAllProcesses(std::chrono::milliseconds grace);

} // namespace Trials

#endif
