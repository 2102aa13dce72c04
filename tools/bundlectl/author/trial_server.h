#ifndef BUNDLECTL_AUTHOR_TRIAL_SERVER_H
#define BUNDLECTL_AUTHOR_TRIAL_SERVER_H

#include "model/status.h"
#include "server_program.h"

#include <sys/types.h>

#include <memory>
#include <optional>
#include <string>

namespace Trials {

/// The server on a collection, inside RunPrivately. Its log and the output of the server and its items go to one file.
class TrialServer {
public:
    /// Starts it.
    /// @param directory the place of its configuration and its log
    /// @throws std::system_error
    TrialServer(const ServerPrograms& programs, const std::string& collection, const std::string& directory);
    TrialServer(const TrialServer&) = delete;
    TrialServer& operator=(const TrialServer&) = delete;
    /// Ends the server, and then every other process.
    ~TrialServer();

    /// Starts it again after its end, with the same log.
    /// @throws std::system_error
    void Start();

    pid_t Pid() const { return m_pid; }
    const std::string& Log() const { return m_log; }

    /// A description of how it has ended; empty while it runs. Reaps dead processes that have lost their parent.
    std::string TakeEnd();

    /// Everything that is known at this moment.
    std::unique_ptr<Model::Snapshot> Look() const;

private:
    const std::string m_program;
    const std::string m_configuration;
    const std::string m_log;
    pid_t m_pid = 0;
    std::string m_end;
};

} // namespace Trials

#endif
