#ifndef BUNDLECTL_AUTHOR_FORCED_EXIT_H
#define BUNDLECTL_AUTHOR_FORCED_EXIT_H

#include <sys/types.h>

namespace Trials {

/// Whether ForceExit supports this machine's processor.
bool CanForceExit();

/// Makes another process exit with a status, in place of its next system call. None of the process's own code runs
/// after that. Does not touch a program that makes no system call within seconds, or one of another architecture.
/// @return whether it exits
bool ForceExit(pid_t pid, int status);

} // namespace Trials

#endif
