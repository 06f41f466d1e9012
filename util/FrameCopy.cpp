#include "FrameCopy.h"

#include <algorithm>
#include <cstring>
#include <functional>

namespace vendor::zoru::zoruprovider::fdstream::V1_0::implementation {

namespace {
void copyRows(uint8_t* dst, size_t dstStride, const uint8_t* src, size_t srcStride, size_t width,
              size_t rows) {
    for (size_t row = 0; row < rows; ++row) {
        memcpy(dst + row * dstStride, src + row * srcStride, width);
    }
}
}  // namespace

FrameView viewOf(const android_ycbcr& ycbcr) {
    auto* const cb = static_cast<uint8_t*>(ycbcr.cb);
    auto* const cr = static_cast<uint8_t*>(ycbcr.cr);
    return {static_cast<uint8_t*>(ycbcr.y), ycbcr.ystride, std::min(cb, cr, std::less<>()),
            ycbcr.cstride};
}

FrameView packedView(uint8_t* memory, int width, int height) {
    const auto rowBytes = static_cast<size_t>(width);
    const auto rows = static_cast<size_t>(height);
    return {memory, rowBytes, memory + rowBytes * rows, rowBytes};
}

int64_t packedBytes(int width, int height) {
    return int64_t{width} * height + int64_t{height / 2} * width;
}

void copyFrame(const FrameView& dst, const FrameView& src, int width, int height) {
    const auto rowBytes = static_cast<size_t>(width);
    const auto rows = static_cast<size_t>(height);
    copyRows(dst.luma, dst.lumaStride, src.luma, src.lumaStride, rowBytes, rows);
    copyRows(dst.chroma, dst.chromaStride, src.chroma, src.chromaStride, rowBytes, rows / 2);
}

}  // namespace vendor::zoru::zoruprovider::fdstream::V1_0::implementation
