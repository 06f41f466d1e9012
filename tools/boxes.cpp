#include "boxes.h"

#include <algorithm>
#include <cstdint>

#include "whole_frame.h"

namespace tools {

namespace {

// A green that is seen on skin and on most that is behind it.
constexpr uint8_t kLuma = 170;
constexpr uint8_t kCb = 50;
constexpr uint8_t kCr = 20;

/** Fills a part, as far as it is inside. */
void fill(kit::Frame& frame, kit::FrameSize size, const camera::Rect& part) {
    const int left = std::clamp(part.x, 0, size.width);
    const int right = std::clamp(part.x + part.width, left, size.width);
    const int top = std::clamp(part.y, 0, size.height);
    const int bottom = std::clamp(part.y + part.height, top, size.height);
    if (left == right) return;
    const auto at = [&](size_t plane, int stride, int x, int y) {
        return &frame[plane + static_cast<size_t>(y) * static_cast<size_t>(stride) +
                      static_cast<size_t>(x)];
    };
    for (int y = top; y < bottom; ++y)
        std::fill_n(at(0, size.width, left, y), right - left, kLuma);
    for (int y = top / 2; y < (bottom + 1) / 2; ++y) {
        for (int x = left / 2; x < (right + 1) / 2; ++x) {
            uint8_t* const pair = at(size.lumaBytes(), chromaBytes(size), 2 * x, y);
            pair[0] = kCb;
            pair[1] = kCr;
        }
    }
}

}  // namespace

void drawBoxes(kit::Frame& frame, kit::FrameSize size, const std::vector<camera::Rect>& boxes,
               int thickness) {
    for (const camera::Rect& box : boxes) {
        fill(frame, size, {box.x, box.y, box.width, thickness});
        fill(frame, size, {box.x, box.y + box.height - thickness, box.width, thickness});
        fill(frame, size, {box.x, box.y, thickness, box.height});
        fill(frame, size, {box.x + box.width - thickness, box.y, thickness, box.height});
    }
}

}  // namespace tools
