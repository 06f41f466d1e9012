#include "zoru_ycbcr.h"

#include <limits>

namespace vendor::zoru::zoruprovider::fdstream::V1_0::implementation {

namespace {
int64_t alignedWidth(int width) {
    return (int64_t{width} + 127) & ~int64_t{127};
}

int64_t alignedHeight(int height) {
    return 32 * ((int64_t{height} - 1) / 32 + 1);
}
}  // namespace

zoru_ycbcr::zoru_ycbcr(uint8_t* data, int inWidth, int inHeight)
    : width(inWidth), height(inHeight) {
    const int64_t rowBytes = alignedWidth(inWidth);
    const int64_t lumaBytes = rowBytes * alignedHeight(inHeight);
    const bool described = data != nullptr && rowBytes >= 0 && lumaBytes >= 0 &&
                           lumaBytes <= std::numeric_limits<int32_t>::max();
    y = data;
    cb = described ? data + lumaBytes : nullptr;
    cr = described ? data + lumaBytes + 1 : nullptr;
    ystride = static_cast<size_t>(rowBytes);
    cstride = static_cast<size_t>(rowBytes);
    chroma_step = 2;
}

}  // namespace vendor::zoru::zoruprovider::fdstream::V1_0::implementation
