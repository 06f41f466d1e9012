#pragma once

#include <cerrno>
#include <cstdint>

namespace android {

/** 0 for success; negative for the platform's own errors, positive where a mapper's number is
 * handed on. */
using status_t = int32_t;

enum : status_t {
    OK = 0,
    NO_ERROR = 0,
    UNKNOWN_ERROR = -2147483647 - 1,
    NO_MEMORY = -ENOMEM,
    INVALID_OPERATION = -ENOSYS,
    BAD_VALUE = -EINVAL,
    NO_INIT = -ENODEV,
    DEAD_OBJECT = -EPIPE,
    TIMED_OUT = -ETIMEDOUT,
    WOULD_BLOCK = -EWOULDBLOCK,
    FAILED_TRANSACTION = UNKNOWN_ERROR + 2,
};

}  // namespace android
