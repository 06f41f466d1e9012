#pragma once

#include <android/hardware/camera/device/3.2/types.h>
#include <ui/GraphicBuffer.h>
#include <utils/StrongPointer.h>

#include <cstdint>

#include "zoru_ycbcr.h"

namespace vendor::zoru::zoruprovider::fdstream::V1_0::implementation {

using ::android::GraphicBuffer;
using ::android::sp;
using ::android::hardware::camera::device::V3_2::CaptureRequest;
using ::android::hardware::camera::device::V3_2::StreamConfiguration;

/**
 * Copies 4:2:0 semi-planar frames between plain memory and graphics buffers, and logs what the
 * client sent. No state; any thread, as long as nobody else writes the destination meanwhile.
 *
 * A packed frame of a buffer of width W and height H is W x H luma bytes, then H / 2 chroma rows of
 * W bytes in the component order of the buffer: W x H + (H / 2) x W bytes without any alignment.
 *
 * The copies return 0, or -1 after a line in the log. They lock the buffer with its own usage,
 * which therefore needs processor bits. Only interleaved chroma (a chroma step of 2) is handled.
 * REQUIRES: buffers are not null; memory holds a whole frame of the buffer's own size.
 */
class [[gnu::visibility("default")]] ZoruUtil {
public:
    /** Buffer to packed frame. A failed unlock alone returns -1, too. */
    static int copyFrom(uint8_t * dst, sp<GraphicBuffer> src);
    /** Packed frame to buffer. A failed unlock alone returns -1, too. */
    static int copyTo(uint8_t * src, sp<GraphicBuffer> dst);
    /** Buffer to buffer, in the size of `dst`; a smaller `src` is refused. */
    static int copy(sp<GraphicBuffer> dst, sp<GraphicBuffer> src);
    /** Described frame to buffer, in the size of `dst`; the record's own size is not consulted. */
    static int copy(sp<GraphicBuffer> dst, zoru_ycbcr & src);

    static void dumpCaptureRequest(CaptureRequest & request);
    static void dumpConfiguration(StreamConfiguration & config);
};

}  // namespace vendor::zoru::zoruprovider::fdstream::V1_0::implementation
