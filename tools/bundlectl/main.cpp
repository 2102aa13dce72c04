// The companion of the bundle server, for people and scripts.
#include "command.h"
#include "command_line.h"

#include <iterator>

namespace {

constexpr Command COMMANDS[] = {
    {"status", DefineStatus},   {"why", DefineWhy},       {"log", DefineLog},         {"delete", DefineDelete},
    {"events", DefineEvents},   {"wait", DefineWait},     {"orphans", DefineOrphans}, {"doctor", DefineDoctor},
    {"metrics", DefineMetrics}, {"record", DefineRecord},
};
static_assert(DefinesItsVerbs(Program::BUNDLECTL, COMMANDS), "the table of verbs has others, or another order");

} // namespace

int main(int argc, char** argv)
{
    return RunProgram({Program::BUNDLECTL, COMMANDS, std::size(COMMANDS)}, argc, argv);
}
