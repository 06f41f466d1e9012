#pragma once

#include <android/hardware/camera/device/3.2/types.h>

#include <cstdint>

#include "frame.h"

/** What a client and a provider say to the session, each record in one line. */
namespace kit {

using ::android::hardware::camera::device::V3_2::CaptureRequest;
using ::android::hardware::camera::device::V3_2::CaptureResult;
using ::android::hardware::camera::device::V3_2::StreamConfiguration;

/** One stream of YCbCr frames that the processor reads and writes often. */
StreamConfiguration configurationOf(FrameSize size, int32_t streamId = 0);

/** A request for a frame in this buffer; without a handle for one that is known. */
CaptureRequest requestFor(uint32_t frameNumber, uint64_t bufferId,
                          const native_handle_t* handle = nullptr, int32_t streamId = 0);

/** A provider's answer to a request, with the buffers as they are in it. */
CaptureResult resultFor(CaptureRequest request);

}  // namespace kit
