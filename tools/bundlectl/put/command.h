#ifndef BUNDLECTL_PUT_COMMAND_H
#define BUNDLECTL_PUT_COMMAND_H

#include "verbs.h"

// The verbs that change a collection or look at what was shipped, a source file each.
Action DefinePut(Arguments& arguments);
Action DefineRollback(Arguments& arguments);
Action DefineVersions(Arguments& arguments);
Action DefineVerify(Arguments& arguments);
Action DefineRemove(Arguments& arguments);

#endif
