#ifndef BUNDLECTL_COMMAND_H
#define BUNDLECTL_COMMAND_H

#include "verbs.h"

// The verbs. Each has its own source file.
Action DefineBlame(Arguments& arguments);
Action DefineDelete(Arguments& arguments);
Action DefineDoctor(Arguments& arguments);
Action DefineEvents(Arguments& arguments);
Action DefineLog(Arguments& arguments);
Action DefineMetrics(Arguments& arguments);
Action DefineOrphans(Arguments& arguments);
Action DefineRecord(Arguments& arguments);
Action DefineReport(Arguments& arguments);
Action DefineStatus(Arguments& arguments);
Action DefineTimeline(Arguments& arguments);
Action DefineWait(Arguments& arguments);
Action DefineWhy(Arguments& arguments);

#endif
