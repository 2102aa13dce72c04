#ifndef ITEM_LAUNCH_H
#define ITEM_LAUNCH_H

#include "common/unique_fd.h"
#include "item_kind.h"

#include <sys/types.h>

#include <string>

namespace SystemServer {

/// What a child needs to become its item. It is made before the fork: between fork and exec the child touches neither
/// the heap nor a lock. The strings are the caller's and outlive the launch.
struct ItemCommand {
    const std::string& processName; ///< for messages
    const std::string& execPath;
    const std::string& itemName;
    const std::string& entryFunc;
    const std::string& loaderName;
    const std::string& loaderPath; ///< used for a library only
    ItemKind kind;
};

/// One launch: the server and the child are connected by a pipe, and the child becomes the item only when the server
/// has recorded it. One thread's, from its making to the release.
class ItemLaunch {
public:
    /// @throws Poco::InvalidArgumentException there is no pipe
    explicit ItemLaunch(const ItemCommand& command);

    /// Forks the child, which waits for its release. A child whose server has gone meanwhile ends with status 1, and so
    /// does one that cannot be executed.
    /// @return its pid. The child itself never returns
    /// @throws Poco::InvalidArgumentException there is no process
    pid_t Fork();

    /// Lets the child become the item. Does not fail: a child that has died meanwhile is the monitor's to find.
    void Release(pid_t pid);

private:
    [[noreturn]] void BecomeItem(pid_t server);

    const ItemCommand& m_command;
    // Close-on-exec, so that no child keeps an end, this one or one that another thread forks meanwhile.
    Common::UniqueFd m_readEnd;
    Common::UniqueFd m_writeEnd;
};

} // namespace SystemServer

#endif
