#ifndef TESTS_UNIT_WATCHER_ALLOCATIONS_H
#define TESTS_UNIT_WATCHER_ALLOCATIONS_H

/// How many times this program has called operator new.
long Allocations();

#endif
