#ifndef ITEM_LAUNCH_H
#define ITEM_LAUNCH_H

#include "common/unique_fd.h"
#include "item_kind.h"

#include <sys/types.h>

#include <string>

namespace SystemServer {

/// The data with which a child becomes its item. It is made before the fork: between fork and exec the child uses
/// neither the heap nor a lock. The caller owns the strings; they must outlive the launch.
struct ItemCommand {
    const std::string& processName; ///< for messages
    const std::string& execPath;
    const std::string& itemName;
    const std::string& entryFunc;
    const std::string& loaderName;
    const std::string& loaderPath; ///< used for a library only
    ItemKind kind;
};

/// One launch. A pipe connects the server and the child, and the child becomes the item only after the server has
/// recorded it. Used on one thread, from the construction to the release.
class ItemLaunch {
public:
    /// @throws Poco::InvalidArgumentException the pipe cannot be created
    explicit ItemLaunch(const ItemCommand& command);

    /// Forks the child, which waits for its release. The child ends with status 1 if the server has ended meanwhile or
    /// the item cannot be executed.
    /// @return its pid. The child itself never returns
    /// @throws Poco::InvalidArgumentException the process cannot be created
    pid_t Fork();

    /// Lets the child become the item. Does not fail: the monitor finds a child that has died meanwhile.
    void Release(pid_t pid);

private:
    [[noreturn]] void BecomeItem(pid_t server);

    const ItemCommand& m_command;
    // Close-on-exec, so that no child keeps an end open: neither this child nor one that another thread forks
    // meanwhile.
    Common::UniqueFd m_readEnd;
    Common::UniqueFd m_writeEnd;
};

} // namespace SystemServer

#endif
