#ifndef BUNDLECTL_PUT_COMMAND_H
#define BUNDLECTL_PUT_COMMAND_H

#include "verbs.h"

// The verbs that change a collection or examine shipped bundles. Each has its own source file.
Action DefinePut(Arguments& arguments);
Action DefineRollback(Arguments& arguments);
Action DefineVersions(Arguments& arguments);
Action DefineVerify(Arguments& arguments);
Action DefineRemove(Arguments& arguments);

#endif
