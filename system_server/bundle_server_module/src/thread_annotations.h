#ifndef THREAD_ANNOTATIONS_H
#define THREAD_ANNOTATIONS_H

/// Which lock guards what, in a form that clang checks (script/test --analyze). It can only do so with a standard
/// library whose locks are annotated too, libc++; for every other compiler and library these are empty. A recursive
/// mutex is annotated in none: what BundleManager::m_mutex guards is said in words.
#if defined(__clang__) && defined(_LIBCPP_ENABLE_THREAD_SAFETY_ANNOTATIONS)
#define THREAD_ANNOTATION(...) __attribute__((__VA_ARGS__))
#else
#define THREAD_ANNOTATION(...)
#endif

/// Of a member: read and written under that lock only.
#define GUARDED_BY(lock) THREAD_ANNOTATION(guarded_by(lock))
/// Of a lock: a thread that holds one of those does not take this one.
#define ACQUIRED_BEFORE(...) THREAD_ANNOTATION(acquired_before(__VA_ARGS__))
/// Of a function: the caller holds these locks.
#define REQUIRES(...) THREAD_ANNOTATION(requires_capability(__VA_ARGS__))
/// Of a function: the caller holds none of these locks, because the function takes them itself.
#define EXCLUDES(...) THREAD_ANNOTATION(locks_excluded(__VA_ARGS__))

#endif
