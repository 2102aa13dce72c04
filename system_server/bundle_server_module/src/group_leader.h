#ifndef GROUP_LEADER_H
#define GROUP_LEADER_H

#include <Poco/Process.h>

#include <string>
#include <vector>

namespace SystemServer {

/// A child that leads a process group of its own: a script, or the command that removes a directory.
struct GroupLeader {
    Poco::ProcessHandle process; ///< the caller waits for the child; the process monitor never does
    int groupError;              ///< 0, or the errno of the failed setpgid: the child is in the server's group
};

/// Launches a command through the framework's launcher. The child moves into its group before it becomes the command,
/// so the process monitor, which waits for the server's group, never takes it from the caller that waits for it. Any
/// thread. The child inherits neither the signal mask of this thread nor SIGXFSZ ignored.
/// @param command searched for in PATH unless it has a "/" in it. When it cannot be executed the child exits with 72
/// @param arguments without the command's own name
/// @throws Poco::SystemException the child cannot be forked
/// @throws std::bad_alloc the child has been killed and reaped
GroupLeader LaunchInOwnGroup(const std::string& command, const std::vector<std::string>& arguments);

} // namespace SystemServer

#endif
