#pragma once

#ifdef __cplusplus
extern "C" {
#endif

#define NATIVE_HANDLE_MAX_FDS 1024
#define NATIVE_HANDLE_MAX_INTS 1024

/** Descriptors first, then integers, in `data`. `version` is the size of this structure, 12. */
typedef struct native_handle {
    int version;
    int numFds;
    int numInts;
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wpedantic"
    int data[0];
#pragma GCC diagnostic pop
} native_handle_t;

typedef const native_handle_t* buffer_handle_t;

/** Closes the descriptors; the memory stays. Refuses (-EINVAL) another `version`. */
int native_handle_close(const native_handle_t* h);

/** Null for negative counts and for more than 1,024 of either. The data is zero. */
native_handle_t* native_handle_create(int numFds, int numInts);

/** A copy with descriptors of its own (close-on-exec); null when one of them cannot be duplicated.
 */
native_handle_t* native_handle_clone(const native_handle_t* handle);

/** Frees the memory; the descriptors stay open. Refuses (-EINVAL) another `version`. */
int native_handle_delete(native_handle_t* h);

#ifdef __cplusplus
}
#endif
