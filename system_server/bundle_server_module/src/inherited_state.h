#ifndef INHERITED_STATE_H
#define INHERITED_STATE_H

/// The signal settings and limits that a child of the server inherits. Every child starts with the signal mask that the
/// server was started with, whichever thread forks it: the framework's threads block SIGTERM and SIGQUIT, its library
/// blocks SIGPIPE, and a bundle must still die of a plain SIGTERM. A fork handler does this; it is set before main. It
/// also gives every child the default disposition of SIGCHLD. The server changes its own disposition of SIGXFSZ, and
/// gives children the original one.
namespace SystemServer {

/// Lowers the limit of open descriptors to what the server can need: the framework's launcher closes every number up to
/// the limit, one by one, in each script's child. Called once, before the first thread.
void BoundDescriptorLimit();

/// Gives a child the limit that the server was started with. For a child between fork and exec: takes no lock and no
/// heap.
void RestoreDescriptorLimit() noexcept;

/// Makes a write beyond the limit on file sizes fail instead of killing the process: a log at the limit only loses
/// records. Called once, before the first record, and by a child that logs again after a failed exec.
void IgnoreFileSizeSignal() noexcept;

/// Gives a child the disposition of SIGXFSZ that the server was started with. For a child between fork and exec that
/// writes no more records; takes no lock and no heap. A child that leads a group of its own gets it at its fork.
void RestoreFileSizeSignal() noexcept;

} // namespace SystemServer

#endif
