#pragma once

#include <cstdint>

#include "view/geometry.h"

namespace camera {

/** How a camera's source is. Value type. */
struct CameraStatus {
    FrameSize picture{};    ///< upright, of the newest frame
    double rate = 0;        ///< frames a second
    uint64_t frames = 0;    ///< that were due
    uint64_t dropped = 0;   ///< of them, that nobody waited for
    bool isBroken = false;  ///< there is no source at the moment
};

}  // namespace camera
