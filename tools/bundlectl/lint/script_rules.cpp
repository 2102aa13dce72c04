// Checks the scripts in "script/", and shell scripts that are items.
#include "model/files.h"
#include "printable.h"
#include "shell_text.h"
#include "subject.h"
#include "suggestion.h"

#include <sys/stat.h>

#include <algorithm>
#include <array>
#include <string_view>

namespace Lint {

namespace {

constexpr Rule SCRIPT_NOT_EXECUTABLE{
    "script-not-executable", Severity::ERROR, "a script may not be executed",
    "The server executes the script itself. One without the permission looks like one that "
    "has run.",
    "chmod +x FILE."};
constexpr Rule SCRIPT_NO_INTERPRETER{"script-no-interpreter", Severity::ERROR, "a script names no interpreter",
                                     "The server executes the script itself, without a shell, so it does not run.",
                                     "Write #!/bin/sh in the first line."};
constexpr Rule SCRIPT_UNKNOWN{"script-unknown", Severity::WARNING, "the server runs no script of this name",
                              "It runs install.sh, update.sh and uninstall.sh; others are run only by these.",
                              "Correct the name."};
constexpr Rule SHELL_WITHOUT_EXEC{
    "shell-without-exec", Severity::WARNING, "a shell item starts its program without exec",
    "A stop kills the shell alone, and the program goes on without an owner.", "Write exec before the program."};
constexpr Rule SHELL_BACKGROUND{
    "shell-background", Severity::WARNING, "a shell item leaves a program in the background",
    "The shell ends, which the server takes for the item's end. The program is not supervised.",
    "Remove the \"&\", and write exec before the program."};
constexpr Rule WRITES_INTO_BUNDLE{
    "writes-into-bundle", Severity::WARNING, "an item writes into the bundle's root, bin/ or script/",
    "A file that comes or goes there is a change of the bundle: the item restarts itself.", "Write below data/."};

constexpr std::array<std::string_view, 3> SCRIPTS{"install.sh", "update.sh", "uninstall.sh"};

} // namespace

void CheckScripts(const Check& check)
{
    const std::string folder = check.bundle.path + "/script";
    std::vector<std::string> names = Model::ListDirectory(folder).value_or(std::vector<std::string>());
    std::sort(names.begin(), names.end());
    for (const std::string& name : names) {
        const std::string file = std::string(folder).append("/").append(name);
        struct stat status {};
        if (std::find(SCRIPTS.begin(), SCRIPTS.end(), name) == SCRIPTS.end()) {
            const std::string_view nearest = Nearest(name, {SCRIPTS.begin(), SCRIPTS.end()});
            if (!nearest.empty()) {
                check.Add(SCRIPT_UNKNOWN, file, 0, "Did you mean \"" + std::string(nearest) + "\"?");
            }
            continue;
        }
        if (::stat(file.c_str(), &status) != 0 || !S_ISREG(status.st_mode)) {
            continue;
        }
        constexpr mode_t anyone = 0111;
        if ((status.st_mode & anyone) == 0) {
            check.Add(SCRIPT_NOT_EXECUTABLE, file, 0, "No user has the execute permission.");
        }
        constexpr std::size_t most = 4096;
        const std::string head = Model::ReadFileAtMost(file, most).value_or("");
        if (head.compare(0, 4, "\177ELF") == 0) {
            continue;
        }
        const std::string interpreter = InterpreterOf(head);
        if (interpreter.empty()) {
            check.Add(SCRIPT_NO_INTERPRETER, file, 1, "The file begins otherwise.");
        }
        CheckInterpreterOf(check, file, interpreter);
    }
}

void CheckShellItem(const Check& check, const SubjectItem& item, const std::string& content)
{
    const ShellText text = ReadShell(content);
    if (text.programLine != 0) {
        check.Add(SHELL_WITHOUT_EXEC, item.file, text.programLine, "The last command starts a program.");
    }
    if (text.backgroundLine != 0) {
        check.Add(SHELL_BACKGROUND, item.file, text.backgroundLine, "The script ends behind it, without wait.");
    }
    for (const ShellWrite& write : text.writes) {
        check.Add(WRITES_INTO_BUNDLE, item.file, write.line, "It writes " + Printable(write.path) + ".");
    }
}

Rules ScriptRules()
{
    return {&SCRIPT_NOT_EXECUTABLE, &SCRIPT_NO_INTERPRETER, &SCRIPT_UNKNOWN,
            &SHELL_WITHOUT_EXEC,    &SHELL_BACKGROUND,      &WRITES_INTO_BUNDLE};
}

} // namespace Lint
