#pragma once

#include <system/graphics.h>

#include <cstddef>
#include <cstdint>

#include "view/geometry.h"

namespace camera {

/** A 4:2:0 frame in a client's memory, (w + 1) / 2 x (h + 1) / 2 of chroma. Value type. */
struct Planes {
    FrameSize size{};
    uint8_t* luma = nullptr;
    int lumaStride = 0;
    uint8_t* cb = nullptr;
    uint8_t* cr = nullptr;
    int chromaStride = 0;
    size_t chromaStep = 0;  ///< 2: in one plane, Cb or Cr first. 1: in two

    int chromaWidth() const { return (size.width + 1) / 2; }
    int chromaHeight() const { return (size.height + 1) / 2; }
    bool isCbFirst() const { return cb < cr; }
    /** Where the chroma begins that is in one plane. */
    uint8_t* pairs() const { return isCbFirst() ? cb : cr; }
};

inline Planes planesOf(const android_ycbcr& locked, FrameSize size) {
    return {size,
            static_cast<uint8_t*>(locked.y),
            static_cast<int>(locked.ystride),
            static_cast<uint8_t*>(locked.cb),
            static_cast<uint8_t*>(locked.cr),
            static_cast<int>(locked.cstride),
            locked.chroma_step};
}

}  // namespace camera
