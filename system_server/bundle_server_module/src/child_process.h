#ifndef CHILD_PROCESS_H
#define CHILD_PROCESS_H

#include <Poco/Process.h>

#include <csignal>
#include <string>
#include <vector>

/// What the server's children and threads get of its signals, groups and limits. A child starts with the signal mask
/// that the server was started with, whichever thread forks it: the framework's threads block SIGTERM and SIGQUIT, and
/// its library SIGPIPE, and a bundle must still die of a plain SIGTERM. No signal handler is ever installed. Of the
/// dispositions the server changes two: that of SIGCHLD, with which a child starts, and that of SIGXFSZ, which a child
/// gets back.
namespace SystemServer {

/// A child that leads a process group of its own.
struct GroupLeader {
    Poco::ProcessHandle process;
    int groupError; ///< 0, or the errno with which moving it into its group failed: it is in the server's group
};

/// Launches a command through the framework's launcher. The child moves into its group before it becomes the command,
/// so the process monitor, which waits for the server's group, never takes it from the caller that waits for it.
/// @throws Poco::SystemException the child cannot be forked
/// @throws std::bad_alloc nothing is left of the child
GroupLeader LaunchInOwnGroup(const std::string& command, const std::vector<std::string>& arguments);

/// SIGINT, SIGTERM and SIGQUIT: the signals that end the server.
sigset_t TerminationSignals();

/// While it lives, the calling thread blocks the signals that end the server. A thread created meanwhile keeps them
/// blocked for good, which leaves them to the main thread.
class TerminationSignalsBlocked {
public:
    TerminationSignalsBlocked();
    ~TerminationSignalsBlocked();
    TerminationSignalsBlocked(const TerminationSignalsBlocked&) = delete;
    TerminationSignalsBlocked& operator=(const TerminationSignalsBlocked&) = delete;

private:
    sigset_t m_before;
};

/// Lowers the limit of open descriptors to what the server can need: the framework's launcher closes every number up to
/// the limit, one by one, in each script's child. Called once, before the first thread.
void BoundDescriptorLimit();

/// Gives a child the limit back that the server was started with. For a child between fork and exec.
void RestoreDescriptorLimit() noexcept;

/// Lets a write beyond the limit on file sizes fail, where it would kill the process: a log that has reached the limit
/// loses records. Called once, before the first record; and by a child that logs again after a failed exec.
void IgnoreFileSizeSignal() noexcept;

/// Gives a child the disposition of SIGXFSZ back that the server was started with. For a child between fork and exec
/// that logs nothing more; a child that leads a group has it from its birth.
void RestoreFileSizeSignal() noexcept;

} // namespace SystemServer

#endif
