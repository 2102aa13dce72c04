#ifndef BUNDLECTL_AUTHOR_FORCED_EXIT_H
#define BUNDLECTL_AUTHOR_FORCED_EXIT_H

#include <sys/types.h>

namespace Trials {

/// Whether ForceExit knows this machine's processor.
bool CanForceExit();

/// Makes another process exit with a status, in place of its next system call: none of its own code runs any more. A
/// program that makes no system call within seconds, and one of another architecture, are left as they are.
/// @return whether it exits
bool ForceExit(pid_t pid, int status);

} // namespace Trials

#endif
