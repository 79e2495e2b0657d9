#pragma once

// Clang's thread-safety attributes; nothing for other compilers. A build with -Wthread-safety
// -Werror checks them. The order in which locks are taken is written in docs/architecture.md.

#if defined(__clang__)
#define VOLDRAKE_THREAD_ATTRIBUTE(x) __attribute__((x))
#else
#define VOLDRAKE_THREAD_ATTRIBUTE(x)
#endif

#define CAPABILITY(name) VOLDRAKE_THREAD_ATTRIBUTE(capability(name))
#define SCOPED_CAPABILITY VOLDRAKE_THREAD_ATTRIBUTE(scoped_lockable)
#define GUARDED_BY(mutex) VOLDRAKE_THREAD_ATTRIBUTE(guarded_by(mutex))
#define REQUIRES(...) VOLDRAKE_THREAD_ATTRIBUTE(requires_capability(__VA_ARGS__))
#define EXCLUDES(...) VOLDRAKE_THREAD_ATTRIBUTE(locks_excluded(__VA_ARGS__))
#define ACQUIRE(...) VOLDRAKE_THREAD_ATTRIBUTE(acquire_capability(__VA_ARGS__))
#define RELEASE(...) VOLDRAKE_THREAD_ATTRIBUTE(release_capability(__VA_ARGS__))
/// For a function that holds a lock which the analysis cannot see.
#define NO_THREAD_SAFETY_ANALYSIS VOLDRAKE_THREAD_ATTRIBUTE(no_thread_safety_analysis)
#define ACQUIRED_BEFORE(...) VOLDRAKE_THREAD_ATTRIBUTE(acquired_before(__VA_ARGS__))
