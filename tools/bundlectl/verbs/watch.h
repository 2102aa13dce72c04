#ifndef BUNDLECTL_VERBS_WATCH_H
#define BUNDLECTL_VERBS_WATCH_H

#include "output/terminal.h"

#include <chrono>
#include <functional>
#include <string>

namespace Verbs {

/// Draws a text on the terminal again and again, until the user presses q or Ctrl-C. Each picture overwrites the one
/// before in a single write, so that nothing flickers. A change of the terminal's size draws at once. The terminal is
/// restored at the end.
/// @param draw makes the text; lines beyond the terminal's height are omitted Returns the exit status.
int Watch(std::chrono::milliseconds interval, const std::function<std::string(const Output::Terminal&)>& draw);

} // namespace Verbs

#endif
