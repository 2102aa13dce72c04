#ifndef BUNDLECTL_AUTHOR_TRIAL_SERVER_H
#define BUNDLECTL_AUTHOR_TRIAL_SERVER_H

#include "model/status.h"
#include "server_program.h"

#include <sys/types.h>

#include <memory>
#include <optional>
#include <string>

namespace Trials {

/// The server on a collection, inside RunPrivately. Its log, and what it and its items print, goes to one file.
class TrialServer {
public:
    /// Starts it.
    /// @param directory for its configuration and its log
    /// @throws std::system_error
    TrialServer(const ServerPrograms& programs, const std::string& collection, const std::string& directory);
    TrialServer(const TrialServer&) = delete;
    TrialServer& operator=(const TrialServer&) = delete;
    /// Ends it, and then every other process.
    ~TrialServer();

    pid_t Pid() const { return m_pid; }
    const std::string& Log() const { return m_log; }

    /// How it has ended, in words; empty while it runs. Takes the dead that have no parent any more.
    std::string TakeEnd();

    /// All that is known at the moment.
    std::unique_ptr<Model::Snapshot> Look() const;

private:
    const std::string m_configuration;
    const std::string m_log;
    pid_t m_pid = 0;
    std::string m_end;
};

} // namespace Trials

#endif
