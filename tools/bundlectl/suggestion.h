#ifndef BUNDLECTL_SUGGESTION_H
#define BUNDLECTL_SUGGESTION_H

#include <string>
#include <string_view>
#include <vector>

/// The known word that is most likely meant by a mistyped one. At most two letters differ, and fewer than the word has.
/// Empty when no word is similar.
std::string_view Nearest(std::string_view word, const std::vector<std::string_view>& known);

/// " Did you mean \"radio\"?" for the end of a message. Empty when no word is similar.
std::string DidYouMean(std::string_view word, const std::vector<std::string_view>& known);

#endif
