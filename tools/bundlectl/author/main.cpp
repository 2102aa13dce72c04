// The verbs of bundlectl for authors of bundles, on their own machines.
#include "command.h"
#include "command_line.h"

#include <iterator>

namespace {

constexpr Command COMMANDS[] = {
    {"new", DefineNew}, {"lint", DefineLint},   {"plan", DefinePlan}, {"graph", DefineGraph},
    {"try", DefineTry}, {"drill", DefineDrill}, {"pack", DefinePack}, {"keygen", DefineKeygen},
};
static_assert(DefinesItsVerbs(Program::AUTHOR, COMMANDS), "the table of verbs has others, or another order");

} // namespace

int main(int argc, char** argv)
{
    return RunProgram({Program::AUTHOR, COMMANDS, std::size(COMMANDS)}, argc, argv);
}
