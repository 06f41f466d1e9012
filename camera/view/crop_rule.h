#pragma once

#include "view/geometry.h"

namespace camera {

/**
 * The part of the picture that a stream of this size shows when `wanted` is asked for. `wanted` is
 * in the pixels of a frame of `frame`'s size.
 *
 * It is scaled to the picture and clipped to it; when nothing is left, or that frame has no size,
 * it is the whole picture. The side that is too short for the stream's shape grows about its
 * middle, and the whole is moved inside; where the grown side would exceed the picture, it is the
 * picture's and the other one is cut about its middle. So nothing is ever stretched. It is rounded
 * outward to even places and sides, and is at least 16 x 16, or the picture where that is smaller:
 * only by this does the shape differ. A pure function. REQUIRES: picture and stream have a size.
 */
Rect viewFor(const Rect& wanted, FrameSize frame, FrameSize picture, FrameSize stream);

}  // namespace camera
