#pragma once

#include <android/hardware/camera/device/3.2/types.h>

#include <cstdint>
#include <utility>

#include "FDSession.h"

namespace vendor::zoru::zoruprovider::fdstream::V1_0::implementation {

using ::android::hardware::camera::device::V3_2::BufferStatus;

/** The stream id of an input buffer that is none. */
constexpr int32_t kNoStream = -1;

/**
 * A result that answers a request and holds nothing else: no metadata, no input buffer. Takes the
 * request's output buffers and gives the first one this status. REQUIRES: there is one.
 */
inline CaptureResult answerTo(CaptureRequest&& request, BufferStatus status) {
    CaptureResult result = {};
    result.frameNumber = request.frameNumber;
    result.outputBuffers = std::move(request.outputBuffers);
    result.outputBuffers[0].status = status;
    result.inputBuffer.streamId = kNoStream;
    return result;
}

}  // namespace vendor::zoru::zoruprovider::fdstream::V1_0::implementation
