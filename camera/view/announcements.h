#pragma once

#include <vendor/zoru/zoruprovider/fdstream/1.0/types.h>

#include <cstdint>

#include "view/geometry.h"

/**
 * What the camera tells of a frame before its result: SHUTTER, with the moment when the frame was
 * due, and two kinds of its own. Each carries the number of the request.
 */
namespace camera {

using vendor::zoru::zoruprovider::fdstream::V1_0::FDNotifyMsg;
using vendor::zoru::zoruprovider::fdstream::V1_0::FDNotifyType;

/** The part of the picture that is in the frame: x, y, width, height, 16 bits each from the low. */
constexpr auto kViewAnnounced = static_cast<FDNotifyType>(0x43414D01);
/** The picture: width, height, 16 bits each from the low; then 1 when the session turns the frame.
 */
constexpr auto kPictureAnnounced = static_cast<FDNotifyType>(0x43414D02);

/** The picture that a frame is a part of. Value type. */
struct Picture {
    FrameSize size{};
    bool isTurned = false;  ///< by 180 degrees, after the view was cut out of it
};

FDNotifyMsg shutterOf(uint32_t frameNumber, uint64_t monotonicNs);
/** REQUIRES: nothing in it is negative or above 65,535. */
FDNotifyMsg viewOf(uint32_t frameNumber, const Rect& view);
FDNotifyMsg pictureOf(uint32_t frameNumber, const Picture& picture);

/** What such a message says. REQUIRES: it is of that kind. */
Rect viewIn(const FDNotifyMsg& msg);
Picture pictureIn(const FDNotifyMsg& msg);

}  // namespace camera
