#ifndef BUNDLECTL_VERBS_WATCH_H
#define BUNDLECTL_VERBS_WATCH_H

#include "output/terminal.h"

#include <chrono>
#include <functional>
#include <string>

namespace Verbs {

/// Draws a text on the terminal again and again, until the user presses q or Ctrl-C. A picture is written over the one
/// before in one go, so that nothing flickers; a new size of the terminal draws at once. The terminal is left as it
/// was.
/// @param draw makes the text; its lines beyond the terminal's are left out
/// Returns the exit status.
int Watch(std::chrono::milliseconds interval, const std::function<std::string(const Output::Terminal&)>& draw);

} // namespace Verbs

#endif
