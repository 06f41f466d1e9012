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

    // The camera's work: a packed frame of the size that the client chose, whose rows may be wider.
    const sp<GraphicBuffer> buffer = session->getBufferForId(request.outputBuffers[0].bufferId);
    bool filled = false;
    if (buffer != nullptr) {
        const size_t pixels = size_t{buffer->getWidth()} * buffer->getHeight();
        std::vector<uint8_t> frame(pixels * 3 / 2, brightness);
        filled = ZoruUtil::copyTo(frame.data(), buffer) == 0;
    }

    CaptureResult result = {};
    result.frameNumber = request.frameNumber;
    result.outputBuffers = request.outputBuffers;
    result.outputBuffers[0].status = filled ? BufferStatus::OK : BufferStatus::ERROR;
    result.inputBuffer.streamId = -1;  // there is none
    session->sendCaptureResult(result);
    return true;
}
