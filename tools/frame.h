#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

namespace tools {

// The one geometry of these programs: what the test frame source plays.
constexpr int kFrameWidth = 1280;
constexpr int kFrameHeight = 720;
constexpr size_t kLumaBytes = size_t{kFrameWidth} * kFrameHeight;
constexpr size_t kFrameBytes = kLumaBytes / 2 * 3;

/** A packed NV12 frame: kFrameBytes, the luma rows and then the rows of Cb-Cr pairs. */
using Frame = std::vector<uint8_t>;

Frame turnedBy180(const Frame& frame);

/** In words, the first place where two frames differ; empty when they are equal. */
std::string difference(const Frame& got, const Frame& expected);

}  // namespace tools
