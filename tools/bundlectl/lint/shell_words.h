#ifndef BUNDLECTL_LINT_SHELL_WORDS_H
#define BUNDLECTL_LINT_SHELL_WORDS_H

#include <string>
#include <string_view>
#include <vector>

namespace Lint {

using ShellWords = std::vector<std::string>;

/// The words of a line of a shell script. Quotation marks are dropped; an operator such as ">>" is a word, and a
/// command substitution stays in its word. Ends at a comment.
ShellWords SplitShellLine(std::string_view line);

} // namespace Lint

#endif
