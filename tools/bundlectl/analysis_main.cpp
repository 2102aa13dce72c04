// The part of bundlectl that makes pictures and pages from a log. A small device does not need it: logs can be examined
// on another machine.
#include "command.h"
#include "command_line.h"

#include <iterator>

namespace {

constexpr Command COMMANDS[] = {{"timeline", DefineTimeline}, {"blame", DefineBlame}, {"report", DefineReport}};
static_assert(DefinesItsVerbs(Program::ANALYSIS, COMMANDS), "the table of verbs has others, or another order");

} // namespace

int main(int argc, char** argv)
{
    return RunProgram({Program::ANALYSIS, COMMANDS, std::size(COMMANDS)}, argc, argv);
}
