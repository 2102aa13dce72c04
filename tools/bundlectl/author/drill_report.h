#ifndef BUNDLECTL_AUTHOR_DRILL_REPORT_H
#define BUNDLECTL_AUTHOR_DRILL_REPORT_H

#include "drill.h"
#include "output/terminal.h"

#include <string>
#include <vector>

namespace Trials {

/// All results of a drill.
struct DrillReport {
    std::string bundle;
    std::string directory; ///< as given on the command line
    std::vector<std::string> stubs;
    std::vector<DrillResult> results;
    std::string ended; ///< why the drill ended early; empty: it did not

    std::size_t Count(DrillResult::Outcome outcome) const;
    bool IsGood() const { return ended.empty() && Count(DrillResult::FAILED) == 0; }
};

/// One or two lines, for people.
std::string DrillText(const DrillResult& result, const Output::Terminal& terminal);
/// The last lines, for people.
std::string DrillSummary(const DrillReport& report);
/// For programs.
std::string DrillJson(const DrillReport& report);
/// For build servers: JUnit's XML, one test case for each exercise.
std::string DrillJunit(const DrillReport& report);

} // namespace Trials

#endif
