#ifndef COMMON_THREAD_ANNOTATIONS_H_
#define COMMON_THREAD_ANNOTATIONS_H_

// Clang's -Wthread-safety attributes; empty under other compilers.
#if defined(__clang__)
#define VANTU_THREAD_ANNOTATION(x) __attribute__((x))
#else
#define VANTU_THREAD_ANNOTATION(x)
#endif

#define VANTU_CAPABILITY(x) VANTU_THREAD_ANNOTATION(capability(x))
#define VANTU_SCOPED_CAPABILITY VANTU_THREAD_ANNOTATION(scoped_lockable)
#define VANTU_GUARDED_BY(x) VANTU_THREAD_ANNOTATION(guarded_by(x))
#define VANTU_PT_GUARDED_BY(x) VANTU_THREAD_ANNOTATION(pt_guarded_by(x))
#define VANTU_REQUIRES(...) VANTU_THREAD_ANNOTATION(requires_capability(__VA_ARGS__))
#define VANTU_ACQUIRE(...) VANTU_THREAD_ANNOTATION(acquire_capability(__VA_ARGS__))
#define VANTU_RELEASE(...) VANTU_THREAD_ANNOTATION(release_capability(__VA_ARGS__))
#define VANTU_EXCLUDES(...) VANTU_THREAD_ANNOTATION(locks_excluded(__VA_ARGS__))
#define VANTU_NO_THREAD_SAFETY_ANALYSIS VANTU_THREAD_ANNOTATION(no_thread_safety_analysis)

#endif  // COMMON_THREAD_ANNOTATIONS_H_
