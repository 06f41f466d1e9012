#pragma once

#include "frame.h"

namespace camera {

using kit::FrameSize;

/** A part of a picture, in its pixels from the upper left. Value type. */
struct Rect {
    int x = 0;
    int y = 0;
    int width = 0;
    int height = 0;
};

inline bool operator==(const Rect& a, const Rect& b) {
    return a.x == b.x && a.y == b.y && a.width == b.width && a.height == b.height;
}
inline bool operator!=(const Rect& a, const Rect& b) {
    return !(a == b);
}

}  // namespace camera
