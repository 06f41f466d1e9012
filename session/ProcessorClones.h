#pragma once

// The processor is asked for here and nowhere else. x86-64 is, because its baseline cannot
// rearrange the bytes of a vector; 64-bit Arm can, in vectors of 16 bytes. The thread sanitizer
// gets plain code: it is not ready yet when the choice among clones is made.

#if defined(__has_feature)
#if __has_feature(thread_sanitizer)
#define FDSTREAM_PLAIN_CODE  // clang's word for what g++ calls __SANITIZE_THREAD__
#endif
#endif

#if defined(__x86_64__) && !defined(__SANITIZE_THREAD__) && !defined(FDSTREAM_PLAIN_CODE)

/** Compiles a function for three kinds of processor; loading the library chooses among them. */
#define FDSTREAM_PROCESSOR_CLONES __attribute__((target_clones("avx2", "ssse3", "default")))

/** Whether the clone that runs can rearrange vectors of 32 bytes. */
inline bool hasWideVectors() {
    return __builtin_cpu_supports("avx2") != 0;
}

#else

#define FDSTREAM_PROCESSOR_CLONES

constexpr bool hasWideVectors() {
    return false;
}

#endif
