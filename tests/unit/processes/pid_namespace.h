#ifndef TESTS_UNIT_PROCESSES_PID_NAMESPACE_H
#define TESTS_UNIT_PROCESSES_PID_NAMESPACE_H

#include <functional>
#include <optional>

/// A pid namespace for a part of a test, in which the test chooses the number of the next process.
namespace PidNamespace {

/// Runs the body in a copy of this process, as process 1 of a new namespace and leader of a process group of its own.
/// Kills the processes that are left in the namespace afterwards. The body's failures are those of the test. Skips the
/// test without the right to make a namespace.
void Run(const std::function<void()>& body);

/// The same for a body that may end the process. Returns the exit status, empty without the right to make a namespace.
std::optional<int> ExitStatusOf(const std::function<void()>& body);

/// Only in a body: the next process that is forked gets this number, which must be free.
void SetNextPid(int pid);

} // namespace PidNamespace

#endif
