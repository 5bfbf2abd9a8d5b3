// Clang thread-safety attributes, as macros that vanish under other
// compilers. They state which lock guards a member and which locks a
// function expects held, so that `scripts/threads.sh` (clang++
// -Wthread-safety -Werror) checks every lock contract at compile time.
//
// Threading: declarations only.
#ifndef KQ_MIDDLEWARE_THREAD_ANNOTATIONS_H_
#define KQ_MIDDLEWARE_THREAD_ANNOTATIONS_H_

#if defined(__clang__)
#define KQ_THREAD_ANNOTATION(x) __attribute__((x))
#else
#define KQ_THREAD_ANNOTATION(x)
#endif

#define CAPABILITY(x) KQ_THREAD_ANNOTATION(capability(x))
#define SCOPED_CAPABILITY KQ_THREAD_ANNOTATION(scoped_lockable)
#define GUARDED_BY(x) KQ_THREAD_ANNOTATION(guarded_by(x))
#define PT_GUARDED_BY(x) KQ_THREAD_ANNOTATION(pt_guarded_by(x))
#define ACQUIRED_AFTER(...) KQ_THREAD_ANNOTATION(acquired_after(__VA_ARGS__))
#define REQUIRES(...) KQ_THREAD_ANNOTATION(requires_capability(__VA_ARGS__))
#define REQUIRES_SHARED(...) KQ_THREAD_ANNOTATION(requires_shared_capability(__VA_ARGS__))
#define ACQUIRE(...) KQ_THREAD_ANNOTATION(acquire_capability(__VA_ARGS__))
#define ACQUIRE_SHARED(...) KQ_THREAD_ANNOTATION(acquire_shared_capability(__VA_ARGS__))
#define RELEASE(...) KQ_THREAD_ANNOTATION(release_capability(__VA_ARGS__))
#define RELEASE_SHARED(...) KQ_THREAD_ANNOTATION(release_shared_capability(__VA_ARGS__))
#define TRY_ACQUIRE(...) KQ_THREAD_ANNOTATION(try_acquire_capability(__VA_ARGS__))
#define TRY_ACQUIRE_SHARED(...) KQ_THREAD_ANNOTATION(try_acquire_shared_capability(__VA_ARGS__))
#define EXCLUDES(...) KQ_THREAD_ANNOTATION(locks_excluded(__VA_ARGS__))
#define ASSERT_CAPABILITY(x) KQ_THREAD_ANNOTATION(assert_capability(x))
#define ASSERT_SHARED_CAPABILITY(x) KQ_THREAD_ANNOTATION(assert_shared_capability(x))
#define NO_THREAD_SAFETY_ANALYSIS KQ_THREAD_ANNOTATION(no_thread_safety_analysis)

#endif  // KQ_MIDDLEWARE_THREAD_ANNOTATIONS_H_
