#ifndef BUNDLECTL_VERBS_TIMELINE_COSTS_H
#define BUNDLECTL_VERBS_TIMELINE_COSTS_H

#include "model/timeline.h"
#include "output/terminal.h"

#include <string>

namespace Verbs {

/// The bundles by the time that each took, the slowest first.
std::string BlameText(const Model::Timeline& timeline, const Output::Terminal& terminal);
std::string BlameJson(const Model::Timeline& timeline);

/// Two start-ups side by side. Bundles that became slower come first.
struct Comparison {
    std::string text;
    std::string json;
    bool isSlower = false; ///< something takes longer by more than chance: 10 % and 10 ms
};
Comparison Compare(const Model::Timeline& before, const Model::Timeline& after, const Output::Terminal& terminal);

} // namespace Verbs

#endif
