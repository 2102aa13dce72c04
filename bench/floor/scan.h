#ifndef BENCH_FLOOR_SCAN_H
#define BENCH_FLOOR_SCAN_H

#ifdef __cplusplus
extern "C" {
#endif

/// Lists a directory and asks for the status of each entry that is a directory, of its manifest, "bin" and "script":
/// the least that any way of looking has to do. Returns a sum of what it has seen, so that nothing is left out.
long long floor_scan(const char* path);

#ifdef __cplusplus
}
#endif

#endif
