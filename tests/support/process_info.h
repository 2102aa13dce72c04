#ifndef TESTS_SUPPORT_PROCESS_INFO_H
#define TESTS_SUPPORT_PROCESS_INFO_H

#include <sys/types.h>

#include <chrono>
#include <map>
#include <string>
#include <vector>

/// Facts from /proc about any process.
namespace ProcessOf {

std::vector<pid_t> All();
bool IsAlive(pid_t pid); ///< true when it exists and is no zombie
/// Its children that have ended and are not reaped yet.
std::vector<pid_t> Zombies(pid_t parent);
std::vector<std::string> CommandLine(pid_t pid);
std::vector<std::string> Environment(pid_t pid);
std::string Executable(pid_t pid);
std::map<int, std::string> Descriptors(pid_t pid);
/// A field of "status", such as "SigBlk" or "VmRSS"; empty when it does not exist.
std::string Status(pid_t pid, const std::string& field);
/// A line of "limits", such as that of "Max open files".
std::string Limit(pid_t pid, const std::string& name);
/// The processor time used so far, without and with that of the children that it has reaped.
std::chrono::milliseconds ProcessorTime(pid_t pid);
std::chrono::milliseconds ProcessorTimeWithChildren(pid_t pid);
std::vector<std::string> ThreadNames(pid_t pid);
/// The state of the thread of that name: "S" while it sleeps, "R" while it runs; empty when no thread has that name.
std::string StateOfThread(pid_t pid, const std::string& name);

} // namespace ProcessOf

#endif
