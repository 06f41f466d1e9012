#pragma once

#include <cstdint>

#include "view/geometry.h"

namespace camera {

/**
 * How frames have to be turned to be seen upright: first mirrored top to bottom, if at all, then
 * turned clockwise by quarters. Value type.
 */
struct Orientation {
    bool isMirrored = false;
    int quarters = 0;  ///< 0 to 3

    bool isUpright() const { return !isMirrored && quarters == 0; }
    /** Whether width and height change places. */
    bool isSideways() const { return quarters % 2 != 0; }
    /** The size after the turn, or before it. */
    FrameSize turned(FrameSize size) const {
        return isSideways() ? FrameSize{size.height, size.width} : size;
    }
};

/** What a display matrix of nine numbers says, to the nearest quarter. */
Orientation orientationOf(const int32_t* matrix);

/** Which part of a frame of `size` becomes this part of the turned one. */
Rect beforeTurn(const Rect& after, const Orientation& orientation, FrameSize size);

}  // namespace camera
