#include "records.h"

#include <utility>

namespace bench {

StreamConfiguration streamOf(FrameSize size) {
    StreamConfiguration configuration = {};
    configuration.streams.resize(1);
    configuration.streams[0].width = size.width;
    configuration.streams[0].height = size.height;
    configuration.streams[0].usage = 0x33;  // often read and written by the processor
    return configuration;
}

CaptureRequest requestFor(uint32_t frameNumber, uint64_t bufferId, const native_handle_t* handle) {
    CaptureRequest request = {};
    request.frameNumber = frameNumber;
    request.inputBuffer.streamId = -1;  // there is none
    request.outputBuffers.resize(1);
    request.outputBuffers[0].bufferId = bufferId;
    request.outputBuffers[0].buffer = handle;
    return request;
}

OwnSession::~OwnSession() {
    mSession->handleSetCallback(nullptr);
    mSession->handleConfigure(streamOf(kTiny));  // gives every imported buffer back
    mSession->requestExit();
    mSession->sendCaptureResult(CaptureResult());  // ends the wait
    mSession->join();
}

CaptureResult resultFor(CaptureRequest request) {
    CaptureResult result = {};
    result.frameNumber = request.frameNumber;
    result.outputBuffers = std::move(request.outputBuffers);
    result.inputBuffer.streamId = -1;  // there is none
    return result;
}

}  // namespace bench
