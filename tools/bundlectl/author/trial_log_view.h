#ifndef BUNDLECTL_AUTHOR_TRIAL_LOG_VIEW_H
#define BUNDLECTL_AUTHOR_TRIAL_LOG_VIEW_H

#include "model/attribution.h"
#include "model/log_reader.h"
#include "output/terminal.h"

#include <string>

namespace Trials {

/// Shows the log of a trial as it grows, for people: a line a record, with the seconds since the first one.
class TrialLogView {
public:
    TrialLogView(const std::string& log, const Output::Terminal& terminal);

    /// Prints what is new. False when standard output takes no more.
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
