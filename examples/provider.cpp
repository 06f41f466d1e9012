#include "provider.h"

#include <unistd.h>

#include <vector>

#include "ZoruUtil.h"

using namespace vendor::zoru::zoruprovider::fdstream::V1_0::implementation;  // NOLINT
using android::hardware::camera::device::V3_2::BufferStatus;

bool serveOneRequest(const sp<FDSession>& session, uint8_t brightness) {
    CaptureRequest request = {};
    for (int ms = 0; session->getProcessCaptureRequest(request) != 0; ++ms) {
        if (ms == 1000) return false;
        usleep(1000);
    }

    // The camera's work: a packed frame for the client's buffer, which may have wider rows.
    std::vector<uint8_t> frame(1280 * 720 * 3 / 2, brightness);
    const uint64_t bufferId = request.outputBuffers[0].bufferId;
    const sp<GraphicBuffer> buffer = session->getBufferForId(bufferId);
    const bool filled = buffer != nullptr && ZoruUtil::copyTo(frame.data(), buffer) == 0;

    CaptureResult result = {};
    result.frameNumber = request.frameNumber;
    result.outputBuffers = request.outputBuffers;
    result.outputBuffers[0].status = filled ? BufferStatus::OK : BufferStatus::ERROR;
    result.inputBuffer.streamId = -1;  // there is none
    session->sendCaptureResult(result);
    return true;
}
