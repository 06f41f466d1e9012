#pragma once

/**
 * What guards what, in words that clang checks with -Wthread-safety. Other compilers see nothing.
 * The standard library's locks take part with libc++ and _LIBCPP_ENABLE_THREAD_SAFETY_ANNOTATIONS.
 */
#if defined(__clang__)
#define THREAD_ANNOTATION_ATTRIBUTE__(x) __attribute__((x))
#else
#define THREAD_ANNOTATION_ATTRIBUTE__(x)
#endif

/** Of a class: it is a lock, which warnings call by this word. */
#define CAPABILITY(x) THREAD_ANNOTATION_ATTRIBUTE__(capability(x))
/** Of a class: it holds a lock from its constructor to its destructor. */
#define SCOPED_CAPABILITY THREAD_ANNOTATION_ATTRIBUTE__(scoped_lockable)

/** Of a member or variable: it is read and written with this lock held. */
#define GUARDED_BY(x) THREAD_ANNOTATION_ATTRIBUTE__(guarded_by(x))
/** Of a pointer: that is so for what it points to. */
#define PT_GUARDED_BY(x) THREAD_ANNOTATION_ATTRIBUTE__(pt_guarded_by(x))

/** Of a function: its caller holds the locks, or does not hold them. */
#define REQUIRES(...) THREAD_ANNOTATION_ATTRIBUTE__(requires_capability(__VA_ARGS__))
#define EXCLUDES(...) THREAD_ANNOTATION_ATTRIBUTE__(locks_excluded(__VA_ARGS__))
/** Of a function: it takes the locks, or lets them go. */
#define ACQUIRE(...) THREAD_ANNOTATION_ATTRIBUTE__(acquire_capability(__VA_ARGS__))
#define RELEASE(...) THREAD_ANNOTATION_ATTRIBUTE__(release_capability(__VA_ARGS__))

/** Of a function: what it does is right for a reason that the compiler cannot know. */
#define NO_THREAD_SAFETY_ANALYSIS THREAD_ANNOTATION_ATTRIBUTE__(no_thread_safety_analysis)
