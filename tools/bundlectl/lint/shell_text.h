#ifndef BUNDLECTL_LINT_SHELL_TEXT_H
#define BUNDLECTL_LINT_SHELL_TEXT_H

#include <string>
#include <string_view>
#include <vector>

namespace Lint {

/// A file in the bundle's root, bin/ or script/ that a script makes.
struct ShellWrite {
    int line;
    std::string path; ///< from the bundle's root
};

/// Properties of a shell script that are known without running it. Considers only simple commands on one line and
/// ignores everything else. So each property that it reports is true, but it may miss some.
struct ShellText {
    int programLine = 0;    ///< the last command, when it starts a program by its path and without exec
    int backgroundLine = 0; ///< the last command, when it leaves a program in the background
    std::vector<ShellWrite> writes;
};

/// @param text of an item, which is in bin/
ShellText ReadShell(std::string_view text);

} // namespace Lint

#endif
