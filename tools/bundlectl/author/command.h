#ifndef BUNDLECTL_AUTHOR_COMMAND_H
#define BUNDLECTL_AUTHOR_COMMAND_H

#include "verbs.h"

// The verbs for authors of bundles. Each has its own source file.
Action DefineNew(Arguments& arguments);
Action DefineLint(Arguments& arguments);
Action DefinePlan(Arguments& arguments);
Action DefineGraph(Arguments& arguments);
Action DefineTry(Arguments& arguments);
Action DefineDrill(Arguments& arguments);
Action DefinePack(Arguments& arguments);
Action DefineKeygen(Arguments& arguments);

#endif
