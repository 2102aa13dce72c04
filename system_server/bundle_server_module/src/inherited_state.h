#ifndef INHERITED_STATE_H
#define INHERITED_STATE_H

/// What a child of the server inherits of its signals and limits. Every child starts with the signal mask that the
/// server was started with, whichever thread forks it: the framework's threads block SIGTERM and SIGQUIT, its library
/// blocks SIGPIPE, and a bundle must still die of a plain SIGTERM. A fork handler that is set before main does this. It
/// also gives every child the default disposition of SIGCHLD. The server changes the disposition of SIGXFSZ itself, and
/// gives children the one that it was started with.
namespace SystemServer {

/// Lowers the limit of open descriptors to what the server can need: the framework's launcher closes every number up to
/// the limit, one by one, in each script's child. Called once, before the first thread.
void BoundDescriptorLimit();

/// Gives a child the limit back that the server was started with. For a child between fork and exec: takes no lock and
/// no heap.
void RestoreDescriptorLimit() noexcept;

/// Lets a write beyond the limit on file sizes fail, where it would kill the process: a log that has reached the limit
/// loses records. Called once, before the first record; and by a child that logs again after a failed exec.
void IgnoreFileSizeSignal() noexcept;

/// Gives a child the disposition of SIGXFSZ back that the server was started with. For a child between fork and exec
/// that writes no more records; takes no lock and no heap. A child that leads a group of its own has it from its fork.
void RestoreFileSizeSignal() noexcept;

} // namespace SystemServer

#endif
