#pragma once

#include <cstdint>

namespace android::hardware::graphics::mapper::V3_0 {

enum class Error : int32_t {
    NONE = 0,
    BAD_DESCRIPTOR = 1,
    BAD_BUFFER = 2,
    BAD_VALUE = 3,
    NO_RESOURCES = 5,
    UNSUPPORTED = 7,
};

/** A locked YCbCr buffer: plane addresses; strides and the chroma sample step in bytes. */
struct YCbCrLayout final {
    void* y;
    void* cb;
    void* cr;
    uint32_t yStride;
    uint32_t cStride;
    uint32_t chromaStep;
};

}  // namespace android::hardware::graphics::mapper::V3_0
