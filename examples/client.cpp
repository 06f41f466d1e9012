#include "client.h"

#include <chrono>
#include <future>

#include "host/buffer.h"

using namespace android::hardware::camera::device::V3_2;     // NOLINT
using namespace vendor::zoru::zoruprovider::fdstream::V1_0;  // NOLINT
using android::sp;
using android::hardware::hidl_vec;
using android::hardware::Return;
using android::hardware::Void;
using android::hardware::camera::common::V1_0::Status;
using android::hardware::graphics::common::V1_0::PixelFormat;

namespace {

/** Keeps what it is told: the result itself is gone when the call returns. */
class Callback : public IFDSessionCallback {
public:
    Return<void> processCaptureResult(const hidl_vec<CaptureResult>& results) override {
        status.set_value(results[0].outputBuffers[0].status);
        return Void();
    }
    Return<void> notify(const hidl_vec<FDNotifyMsg>& /*msgs*/) override { return Void(); }

    std::promise<BufferStatus> status;
};

/** A call can fail on its way, which has to be looked at, or be answered with a refusal. */
bool accepted(const Return<Status>& answer) {
    return answer.isOk() && static_cast<Status>(answer) == Status::OK;
}

}  // namespace

std::optional<uint8_t> receiveOneFrame(const sp<IFDSession>& session) {
    Stream stream = {};
    stream.width = 1280;
    stream.height = 720;
    stream.format = PixelFormat::YCBCR_420_888;
    stream.usage = 0x33;  // often read and written by the processor
    StreamConfiguration configuration = {};
    configuration.streams = {stream};

    const auto buffer = host::Buffer::allocate({stream.width, stream.height});
    if (!buffer) return std::nullopt;
    CaptureRequest request = {};
    request.frameNumber = 1;
    request.inputBuffer.streamId = -1;  // there is none
    request.outputBuffers.resize(1);
    request.outputBuffers[0].bufferId = 1;  // with its handle now, later by the id alone
    request.outputBuffers[0].buffer = buffer->handle();

    const sp<Callback> callback = new Callback;
    std::future<BufferStatus> status = callback->status.get_future();
    const bool came = accepted(session->setCallback(callback)) &&
                      accepted(session->configure(configuration)) &&
                      accepted(session->processCaptureRequest(request)) &&
                      status.wait_for(std::chrono::seconds(3)) == std::future_status::ready &&
                      status.get() == BufferStatus::OK;
    if (!accepted(session->setCallback(nullptr)) || !came) return std::nullopt;
    return buffer->lumaRow(360)[640];
}
