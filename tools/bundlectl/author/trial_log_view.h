#ifndef BUNDLECTL_AUTHOR_TRIAL_LOG_VIEW_H
#define BUNDLECTL_AUTHOR_TRIAL_LOG_VIEW_H

#include "model/attribution.h"
#include "model/log_reader.h"
#include "output/terminal.h"

#include <string>

namespace Trials {

/// Shows the growing log of a trial, for people: one line for each record, with the seconds since the first one.
class TrialLogView {
public:
    TrialLogView(const std::string& log, const Output::Terminal& terminal);

    /// Prints the new records. False when standard output cannot be written any more.
    bool Print();

private:
    std::string TextOf(const Model::LogLine& line);

    Model::LogReader m_reader;
    Model::Attribution m_attribution;
    const Output::Terminal m_terminal;
    Model::Time m_first;
};

} // namespace Trials

#endif
