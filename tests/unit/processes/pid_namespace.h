#ifndef TESTS_UNIT_PROCESSES_PID_NAMESPACE_H
#define TESTS_UNIT_PROCESSES_PID_NAMESPACE_H

#include <functional>
#include <optional>

/// A pid namespace for one piece of a test, in which the test chooses the number of the next process.
namespace PidNamespace {

/// Runs the body in a copy of this process, as process 1 of a new namespace and leader of a process group of its own.
/// What is still there of the namespace afterwards is killed. The body's failures are those of the test; without the
/// right to make a namespace the test is skipped.
void Run(const std::function<void()>& body);

/// The same for a body that may end the process. Returns the exit status, empty without the right to make a namespace.
std::optional<int> ExitStatusOf(const std::function<void()>& body);

/// In the body: the next process that is forked gets this number, which must be free.
void SetNextPid(int pid);

} // namespace PidNamespace

#endif
