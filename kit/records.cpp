#include "records.h"

#include <utility>

namespace kit {

namespace {
constexpr int32_t kNoStream = -1;
}  // namespace

StreamConfiguration configurationOf(FrameSize size, int32_t streamId) {
    StreamConfiguration configuration = {};
    configuration.streams.resize(1);
    auto& stream = configuration.streams[0];
    stream.id = streamId;
    stream.width = static_cast<uint32_t>(size.width);
    stream.height = static_cast<uint32_t>(size.height);
    stream.format = android::hardware::graphics::common::V1_0::PixelFormat::YCBCR_420_888;
    stream.usage = 0x33;  // often read and written by the processor
    return configuration;
}

CaptureRequest requestFor(uint32_t frameNumber, uint64_t bufferId, const native_handle_t* handle,
                          int32_t streamId) {
    CaptureRequest request = {};
    request.frameNumber = frameNumber;
    request.inputBuffer.streamId = kNoStream;
    request.outputBuffers.resize(1);
    request.outputBuffers[0].streamId = streamId;
    request.outputBuffers[0].bufferId = bufferId;
    request.outputBuffers[0].buffer = handle;
    return request;
}

CaptureResult resultFor(CaptureRequest request) {
    CaptureResult result = {};
    result.frameNumber = request.frameNumber;
    result.outputBuffers = std::move(request.outputBuffers);
    result.inputBuffer.streamId = kNoStream;
    return result;
}

}  // namespace kit
