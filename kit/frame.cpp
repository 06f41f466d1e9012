#include "frame.h"

#include <algorithm>

namespace kit {

Frame turnedBy180(const Frame& frame) {
    Frame turned(frame.rbegin(), frame.rend());
    // Reversing all the bytes puts the chroma first, and Cr before Cb in each pair.
    std::rotate(turned.begin(), turned.end() - ptrdiff_t{kLumaBytes}, turned.end());
    for (size_t pair = kLumaBytes; pair < kFrameBytes; pair += 2)
        std::swap(turned[pair], turned[pair + 1]);
    return turned;
}

std::string difference(const Frame& got, const Frame& expected) {
    const auto [here, there] =
        std::mismatch(got.begin(), got.end(), expected.begin(), expected.end());
    if (here == got.end() && there == expected.end()) return {};
    const auto offset = static_cast<size_t>(here - got.begin());
    const bool luma = offset < kLumaBytes;
    const size_t inPlane = luma ? offset : offset - kLumaBytes;
    return std::string(luma ? "luma" : "chroma") + " row " + std::to_string(inPlane / kFrameWidth) +
           ", byte " + std::to_string(inPlane % kFrameWidth);
}

}  // namespace kit
