#pragma once

#include <ui/GraphicBuffer.h>
#include <utils/StrongPointer.h>

namespace vendor::zoru::zoruprovider::fdstream::V1_0::implementation {

/**
 * Turns the 4:2:0 semi-planar frame in a buffer by 180 degrees, in place. Null, a failed lock and
 * another layout are told by the log and leave the frame as it was. Below a height of 4 the chroma
 * stays as it is. REQUIRES: nobody else writes the buffer meanwhile.
 */
void rotate180(android::sp<android::GraphicBuffer> buffer);

}  // namespace vendor::zoru::zoruprovider::fdstream::V1_0::implementation
