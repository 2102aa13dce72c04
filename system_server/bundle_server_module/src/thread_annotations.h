#ifndef THREAD_ANNOTATIONS_H
#define THREAD_ANNOTATIONS_H

/// Annotations that say which lock guards what. clang checks them (script/test --analyze). This needs a standard
/// library with annotated locks: libc++. For every other compiler or library the macros are empty. No library annotates
/// a recursive mutex, so comments say what BundleManager::m_mutex guards.
#if defined(__clang__) && defined(_LIBCPP_ENABLE_THREAD_SAFETY_ANNOTATIONS)
#define THREAD_ANNOTATION(...) __attribute__((__VA_ARGS__))
#else
#define THREAD_ANNOTATION(...)
#endif

/// For a member: it is read and written only under that lock.
#define GUARDED_BY(lock) THREAD_ANNOTATION(guarded_by(lock))
/// For a lock: a thread that holds one of those does not take this one.
#define ACQUIRED_BEFORE(...) THREAD_ANNOTATION(acquired_before(__VA_ARGS__))
/// For a function: the caller holds these locks.
#define REQUIRES(...) THREAD_ANNOTATION(requires_capability(__VA_ARGS__))
/// For a function: the caller holds none of these locks, because the function takes them itself.
#define EXCLUDES(...) THREAD_ANNOTATION(locks_excluded(__VA_ARGS__))

#endif
