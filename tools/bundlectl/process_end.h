#ifndef BUNDLECTL_PROCESS_END_H
#define BUNDLECTL_PROCESS_END_H

#include "common/unique_fd.h"
#include "model/proc.h"

#include <chrono>
#include <string>

/// A process that is to be ended. It is held by a descriptor, so that another process which gets its number is never
/// meant.
class EndingProcess {
public:
    /// Takes hold of a process that was seen before, and makes sure that it is still that one: by its start time and
    /// its program file.
    EndingProcess(const Model::ProcessStat& seen, const std::string& program, const Model::Proc& proc);

    /// Why it is not held, a sentence; empty: it is.
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
