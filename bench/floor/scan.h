#ifndef BENCH_FLOOR_SCAN_H
#define BENCH_FLOOR_SCAN_H

#ifdef __cplusplus
extern "C" {
#endif

/// The lowest possible cost of a scan: lists a directory and asks for the status of each subdirectory, its manifest,
/// "bin" and "script". Returns a sum of the results, so that the compiler removes no call.
long long floor_scan(const char* path);

#ifdef __cplusplus
}
#endif

#endif
