#ifndef BUNDLECTL_AUTHOR_DRILL_REPORT_H
#define BUNDLECTL_AUTHOR_DRILL_REPORT_H

#include "drill.h"
#include "output/terminal.h"

#include <string>
#include <vector>

namespace Trials {

/// All that a drill has found.
struct DrillReport {
    std::string bundle;
    std::string directory; ///< that was given
    std::vector<std::string> stubs;
    std::vector<DrillResult> results;
    std::string ended; ///< why it came to an end before it was done; empty: it did not

    std::size_t Count(DrillResult::Outcome outcome) const;
    bool IsGood() const { return ended.empty() && Count(DrillResult::FAILED) == 0; }
};

/// A line or two, for people.
std::string DrillText(const DrillResult& result, const Output::Terminal& terminal);
/// The last lines, for people.
std::string DrillSummary(const DrillReport& report);
/// For programs.
std::string DrillJson(const DrillReport& report);
/// For what builds and tests by itself: JUnit's XML, a test case an exercise.
std::string DrillJunit(const DrillReport& report);

} // namespace Trials

#endif
