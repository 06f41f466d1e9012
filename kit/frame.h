#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

namespace kit {

/** In pixels; both are even. */
struct FrameSize {
    int width;
    int height;

    constexpr size_t lumaBytes() const {
        return static_cast<size_t>(width) * static_cast<size_t>(height);
    }
    constexpr size_t bytes() const { return lumaBytes() / 2 * 3; }
};

// The geometry of clips: what the test frame source plays.
constexpr int kFrameWidth = 1280;
constexpr int kFrameHeight = 720;
constexpr FrameSize kClipSize = {kFrameWidth, kFrameHeight};
constexpr size_t kLumaBytes = kClipSize.lumaBytes();
constexpr size_t kFrameBytes = kClipSize.bytes();

/** A packed NV12 frame: the luma rows and then the rows of Cb-Cr pairs. */
using Frame = std::vector<uint8_t>;

// These two are for frames of a clip's size.

Frame turnedBy180(const Frame& frame);

/** In words, the first place where two frames differ; empty when they are equal. */
std::string difference(const Frame& got, const Frame& expected);

}  // namespace kit
