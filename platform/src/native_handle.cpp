#include <cutils/native_handle.h>

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>

#include "host/descriptor_bound.h"
#include "host/unique_handle.h"

namespace {
bool hasKnownVersion(const native_handle_t* h) {
    return h->version == static_cast<int>(sizeof(native_handle_t));
}
}  // namespace

native_handle_t* native_handle_create(int numFds, int numInts) {
    if (numFds < 0 || numInts < 0 || numFds > NATIVE_HANDLE_MAX_FDS ||
        numInts > NATIVE_HANDLE_MAX_INTS) {
        return nullptr;
    }
    const size_t words = static_cast<size_t>(numFds) + static_cast<size_t>(numInts);
    // Not calloc(): in glibc that does not use the thread's cache of free memory.
    void* const memory = malloc(sizeof(native_handle_t) + words * sizeof(int));
    if (memory == nullptr) return nullptr;
    auto* const h = static_cast<native_handle_t*>(memory);
    h->version = sizeof(native_handle_t);
    h->numFds = numFds;
    h->numInts = numInts;
    memset(h->data, 0, words * sizeof(int));
    return h;
}

native_handle_t* native_handle_clone(const native_handle_t* handle) {
    if (handle == nullptr) return nullptr;
    host::UniqueHandle clone(native_handle_create(handle->numFds, handle->numInts));
    if (clone == nullptr) return nullptr;
    for (int i = 0; i < handle->numFds; ++i) {
        clone->data[i] = fcntl(handle->data[i], F_DUPFD_CLOEXEC, 0);
        const bool isMade = clone->data[i] >= 0;
        if (!isMade || host::isBeyondBound(clone->data[i])) {
            clone->numFds = isMade ? i + 1 : i;  // those it owns by now
            return nullptr;
        }
    }
    memcpy(&clone->data[handle->numFds], &handle->data[handle->numFds],
           sizeof(int) * static_cast<size_t>(handle->numInts));
    return clone.release();
}

int native_handle_close(const native_handle_t* h) {
    if (h == nullptr) return 0;
    if (!hasKnownVersion(h)) return -EINVAL;
    const int saved = errno;
    for (int i = 0; i < h->numFds; ++i)
        close(h->data[i]);
    errno = saved;
    return 0;
}

int native_handle_delete(native_handle_t* h) {
    if (h == nullptr) return 0;
    if (!hasKnownVersion(h)) return -EINVAL;
    free(h);
    return 0;
}
