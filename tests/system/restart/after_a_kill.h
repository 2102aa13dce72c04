#ifndef TESTS_SYSTEM_RESTART_AFTER_A_KILL_H
#define TESTS_SYSTEM_RESTART_AFTER_A_KILL_H

#include "system/system_test.h"

#include <sys/types.h>

#include <string>

/// A daemon that leads its own session, as under any init system, and its operator's commands after its death. Its long
/// sleeps are divided by fifty.
class AfterAKill : public SystemTest {
protected:
    AfterAKill();

    /// Ends every process that the latest server has left, with the command in docs/operating.md.
    void EndWhatIsLeft();
    /// The record of a deletion that the latest server has not finished, from the command in docs/operating.md.
    std::string UnfinishedDeletion() const;

    std::string In(const std::string& name) const { return collection / name; }
    std::string ProgramOf(const std::string& bundle, const std::string& item) const;
    std::string PidFile() const { return Note("bundle_server.pid"); }
};

/// Kills every process of the server's session.
void EndSession(pid_t server);

#endif
