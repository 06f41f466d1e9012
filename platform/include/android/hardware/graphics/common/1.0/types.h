#pragma once

#include <cstdint>

namespace android::hardware::graphics::common::V1_0 {

/** The published formats that a client of a second camera stream meets. */
enum class PixelFormat : int32_t {
    IMPLEMENTATION_DEFINED = 34,
    YCBCR_420_888 = 35,
    YCRCB_420_SP = 17,
    YV12 = 842094169,
};

enum class Dataspace : int32_t {
    UNKNOWN = 0,
    JFIF = 0x101,
    BT601_625 = 0x102,
    BT601_525 = 0x103,
    BT709 = 0x104,
};

enum class BufferUsage : uint64_t {
    CPU_READ_MASK = 0xf,
    CPU_READ_OFTEN = 3,
    CPU_WRITE_MASK = 0xf0,
    CPU_WRITE_OFTEN = 0x30,
};

}  // namespace android::hardware::graphics::common::V1_0
