#pragma once

#include <system/graphics.h>

#include <cstddef>
#include <cstdint>

// REQUIRES, of every width and height here: at least 1, as a buffer's and a file's are.

namespace vendor::zoru::zoruprovider::fdstream::V1_0::implementation {

/** Where the two planes of a semi-planar frame are. Value type; owns nothing. Strides in bytes. */
struct FrameView {
    uint8_t* luma;
    size_t lumaStride;
    uint8_t* chroma;
    size_t chromaStride;
};

/** The chroma plane starts with whichever component comes first. */
FrameView viewOf(const android_ycbcr& ycbcr);

/** Frame memory without padding: the luma rows, then the chroma rows. */
FrameView packedView(uint8_t* memory, int width, int height);

/** Bytes of a packed frame. */
int64_t packedBytes(int width, int height);

/** Copies `height` luma rows and `height` / 2 chroma rows, `width` bytes each. */
void copyFrame(const FrameView& dst, const FrameView& src, int width, int height);

}  // namespace vendor::zoru::zoruprovider::fdstream::V1_0::implementation
