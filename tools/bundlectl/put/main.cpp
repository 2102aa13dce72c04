// The verbs of bundlectl that change a collection: they install and remove bundles, and compare them with the shipped
// content.
#include "command.h"
#include "command_line.h"

#include <iterator>

namespace {

constexpr Command COMMANDS[] = {
    {"put", DefinePut},       {"rollback", DefineRollback}, {"versions", DefineVersions},
    {"verify", DefineVerify}, {"remove", DefineRemove},
};
static_assert(DefinesItsVerbs(Program::PUT, COMMANDS), "the table of verbs has others, or another order");

} // namespace

int main(int argc, char** argv)
{
    return RunProgram({Program::PUT, COMMANDS, std::size(COMMANDS)}, argc, argv);
}
