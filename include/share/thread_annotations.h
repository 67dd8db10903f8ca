#pragma once

// Clang's thread-safety attributes under short names; nothing for other compilers. The clang build
// treats a breach as an error.
#if defined(__clang__)
#define ORVA_THREAD_ATTRIBUTE(x) __attribute__((x))
#else
#define ORVA_THREAD_ATTRIBUTE(x)
#endif

#define CAPABILITY(x) ORVA_THREAD_ATTRIBUTE(capability(x))
#define SCOPED_CAPABILITY ORVA_THREAD_ATTRIBUTE(scoped_lockable)
#define GUARDED_BY(x) ORVA_THREAD_ATTRIBUTE(guarded_by(x))
#define PT_GUARDED_BY(x) ORVA_THREAD_ATTRIBUTE(pt_guarded_by(x))
#define ACQUIRED_BEFORE(...) ORVA_THREAD_ATTRIBUTE(acquired_before(__VA_ARGS__))
#define ACQUIRED_AFTER(...) ORVA_THREAD_ATTRIBUTE(acquired_after(__VA_ARGS__))
#define REQUIRES(...) ORVA_THREAD_ATTRIBUTE(requires_capability(__VA_ARGS__))
#define ACQUIRE(...) ORVA_THREAD_ATTRIBUTE(acquire_capability(__VA_ARGS__))
#define TRY_ACQUIRE(...) ORVA_THREAD_ATTRIBUTE(try_acquire_capability(__VA_ARGS__))
#define RELEASE(...) ORVA_THREAD_ATTRIBUTE(release_capability(__VA_ARGS__))
#define EXCLUDES(...) ORVA_THREAD_ATTRIBUTE(locks_excluded(__VA_ARGS__))
#define NO_THREAD_SAFETY_ANALYSIS ORVA_THREAD_ATTRIBUTE(no_thread_safety_analysis)
