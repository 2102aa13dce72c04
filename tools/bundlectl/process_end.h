#ifndef BUNDLECTL_PROCESS_END_H
#define BUNDLECTL_PROCESS_END_H

#include "common/unique_fd.h"
#include "model/proc.h"

#include <chrono>
#include <string>

/// A process to end. A descriptor holds it, so a signal never reaches another process that gets its pid.
class EndingProcess {
public:
    /// Opens a process that was seen before. Checks by start time and program file that it is still the same one.
    EndingProcess(const Model::ProcessStat& seen, const std::string& program, const Model::Proc& proc);

    /// A sentence that says why it is not held; empty: it is held.
    const std::string& Trouble() const { return m_trouble; }

    /// Sends a signal. False when that fails.
    bool Send(int signal);

    /// Whether it ends within that time.
    bool WaitForEnd(std::chrono::milliseconds limit) const;

private:
    Common::UniqueFd m_fd;
    std::string m_trouble;
};

#endif
