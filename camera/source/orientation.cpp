#include "source/orientation.h"

#include <cstdlib>

namespace camera {

Orientation orientationOf(const int32_t* matrix) {
    // x' = a x + c y, y' = b x + d y, with y downward.
    const int64_t a = matrix[0];
    const int64_t b = matrix[1];
    const int64_t c = matrix[3];
    const int64_t d = matrix[4];
    if (std::abs(a) + std::abs(d) >= std::abs(b) + std::abs(c)) {
        const bool isMirrored = (a < 0) != (d < 0);
        return {isMirrored, a < 0 ? 2 : 0};
    }
    const bool isMirrored = (b < 0) == (c < 0);
    return {isMirrored, b > 0 ? 1 : 3};
}

Rect beforeTurn(const Rect& after, const Orientation& orientation, FrameSize size) {
    Rect before = after;
    switch (orientation.quarters) {
        case 1:
            before = {after.y, size.height - after.x - after.width, after.height, after.width};
            break;
        case 2:
            before = {size.width - after.x - after.width, size.height - after.y - after.height,
                      after.width, after.height};
            break;
        case 3:
            before = {size.width - after.y - after.height, after.x, after.height, after.width};
            break;
        default:
            break;
    }
    if (orientation.isMirrored) before.y = size.height - before.y - before.height;
    return before;
}

}  // namespace camera
