#ifndef BUNDLECTL_VERBS_TIMELINE_VIEW_H
#define BUNDLECTL_VERBS_TIMELINE_VIEW_H

#include "model/timeline.h"
#include "output/terminal.h"

#include <string>

namespace Verbs {

/// One bar for each bundle, for terminals and files.
std::string TimelineText(const Model::Timeline& timeline, const Output::Terminal& terminal);

/// A self-contained picture: no network, no script, light and dark.
std::string TimelineSvg(const Model::Timeline& timeline);

/// For programs, in the form of the schema.
std::string TimelineJson(const Model::Timeline& timeline);

/// For a trace viewer: the Trace Event Format.
std::string TimelineTrace(const Model::Timeline& timeline);

/// A bundle's name for people. A directory that was refused before its name was known has its own name and a "/", as in
/// the status.
std::string NameToShow(const Model::TimelineBundle& bundle);

/// A word for a kind of mark: "launch", "relaunch", "end", "death", "failure".
const char* NameOf(Model::TimelineMark::Kind kind);

} // namespace Verbs

#endif
