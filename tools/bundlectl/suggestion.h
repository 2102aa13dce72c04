#ifndef BUNDLECTL_SUGGESTION_H
#define BUNDLECTL_SUGGESTION_H

#include <string_view>
#include <vector>

/// The known word that a mistyped one most likely stands for: one that at most two letters tell from it, and fewer than
/// it has. Empty when there is none.
std::string_view Nearest(std::string_view word, const std::vector<std::string_view>& known);

#endif
