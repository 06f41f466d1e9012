#pragma once

#include <ui/GraphicBuffer.h>
#include <utils/StrongPointer.h>

namespace vendor::zoru::zoruprovider::fdstream::V1_0::implementation {

/**
 * Turns the 4:2:0 semi-planar frame in a buffer by 180 degrees, in place. Null, a failed lock or
 * another layout is logged and leaves the frame as it was. Below a height of 4 the chroma is left
 * alone. REQUIRES: nobody else writes the buffer meanwhile.
 */
void rotate180(android::sp<android::GraphicBuffer> buffer);

}  // namespace vendor::zoru::zoruprovider::fdstream::V1_0::implementation
