#pragma once

#include <system/graphics.h>

#include <cstdint>

namespace vendor::zoru::zoruprovider::fdstream::V1_0::implementation {

/**
 * A 4:2:0 frame in memory, in the terms in which the platform describes a locked buffer, with its
 * size in pixels. Value type: describes memory that it does not own.
 */
struct [[gnu::visibility("default")]] zoru_ycbcr : public android_ycbcr {
    /**
     * The frame at `data` whose luma rows are padded to a multiple of 128 bytes and whose row count
     * is padded to a multiple of 32, followed by interleaved chroma with the Cb byte first. Without
     * `data`, or when the size of the luma plane is negative or over 32 bits, the chroma addresses
     * are null, and so the frame is refused wherever it is used.
     */
    zoru_ycbcr(uint8_t * data, int width, int height);

    int32_t width;
    int32_t height;
};

}  // namespace vendor::zoru::zoruprovider::fdstream::V1_0::implementation
