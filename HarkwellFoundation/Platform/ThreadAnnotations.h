// Clang's thread-safety attributes under the project's own names, so that which mutex guards which
// member, and which functions expect it held, is checked by the compiler (-Wthread-safety) rather
// than stated only in comments. Other compilers see nothing.
//
//   HARKWELL_GUARDED_BY(m)      a member read and written only with m held
//   HARKWELL_PT_GUARDED_BY(m)   what a pointer member points to, likewise
//   HARKWELL_REQUIRES(m)        a function called with m held (a "...Locked" helper)
//   HARKWELL_EXCLUDES(m)        a function that takes m itself, so the caller must not hold it
//   HARKWELL_ACQUIRE(m), HARKWELL_RELEASE(m), HARKWELL_TRY_ACQUIRE(result, m)
//                               functions that take or give back m (the mutex and lock types)
//   HARKWELL_ASSERT_CAPABILITY(m)  a function after which m is known to be held
//   HARKWELL_CAPABILITY(name), HARKWELL_SCOPED_CAPABILITY  on the mutex and lock classes
//   HARKWELL_NO_THREAD_SAFETY_ANALYSIS  a function the analysis cannot follow; say why beside it
#pragma once

#if defined(__clang__)
#define HARKWELL_THREAD_ANNOTATION(x) __attribute__((x))
#else
#define HARKWELL_THREAD_ANNOTATION(x)
#endif

#define HARKWELL_CAPABILITY(name) HARKWELL_THREAD_ANNOTATION(capability(name))
#define HARKWELL_SCOPED_CAPABILITY HARKWELL_THREAD_ANNOTATION(scoped_lockable)
#define HARKWELL_GUARDED_BY(x) HARKWELL_THREAD_ANNOTATION(guarded_by(x))
#define HARKWELL_PT_GUARDED_BY(x) HARKWELL_THREAD_ANNOTATION(pt_guarded_by(x))
#define HARKWELL_REQUIRES(...) HARKWELL_THREAD_ANNOTATION(requires_capability(__VA_ARGS__))
#define HARKWELL_EXCLUDES(...) HARKWELL_THREAD_ANNOTATION(locks_excluded(__VA_ARGS__))
#define HARKWELL_ACQUIRE(...) HARKWELL_THREAD_ANNOTATION(acquire_capability(__VA_ARGS__))
#define HARKWELL_RELEASE(...) HARKWELL_THREAD_ANNOTATION(release_capability(__VA_ARGS__))
#define HARKWELL_TRY_ACQUIRE(...) HARKWELL_THREAD_ANNOTATION(try_acquire_capability(__VA_ARGS__))
#define HARKWELL_ASSERT_CAPABILITY(x) HARKWELL_THREAD_ANNOTATION(assert_capability(x))
#define HARKWELL_NO_THREAD_SAFETY_ANALYSIS HARKWELL_THREAD_ANNOTATION(no_thread_safety_analysis)
