#include "FDSessionTest.h"

#include <android/log.h>
#include <system/graphics.h>
#include <ui/GraphicBuffer.h>
#include <unistd.h>

#include <utility>

#include "FrameCopy.h"
#include "TestInput.h"
#include "ZoruUtil.h"

#define LOG_TAG "vendor.zoru.zoruprovider.fdstream@1.0-impl"

namespace vendor::zoru::zoruprovider::fdstream::V1_0::implementation {

namespace {
constexpr int kFrameWidth = 1280;
constexpr int kFrameHeight = 720;
constexpr useconds_t kPauseUs = 50000;
}  // namespace

FDSessionTest::FDSessionTest()
    : Thread(true), mFile(kTestInput, kFrameWidth, kFrameHeight), mLastConfiguration() {
    mFdSession = FDSession::getInstance();
    if (mFdSession == nullptr) {
        __android_log_print(ANDROID_LOG_ERROR, LOG_TAG, "%s: getting fdSession instance failed \n",
                            __func__);
        return;
    }
    // When no thread can be made, run() drops the reference that it took for the thread. As the
    // only one it would delete the object inside its own constructor. So another reference is held
    // here, and never dropped in that case.
    incStrong(this);
    if (run("FDSessionTest", ::android::PRIORITY_DEFAULT, 0) == ::android::NO_ERROR) {
        decStrong(this);
        return;
    }
    __android_log_print(ANDROID_LOG_ERROR, LOG_TAG,
                        "%s: no thread could be made, and the object stays \n", __func__);
}

FDSessionTest::~FDSessionTest() {
    requestExit();
    join();
    mFdSession.clear();
    __android_log_print(ANDROID_LOG_INFO, LOG_TAG, "%s: \n", __func__);
}

bool FDSessionTest::threadLoop() {
    {
        const ::android::Mutex::Autolock lock(mLoopLock);
        CaptureRequest request = {};
        if (updateConfiguration() && mFdSession->getProcessCaptureRequest(request) == 0) {
            serve(std::move(request));
        }
    }
    usleep(kPauseUs);
    return true;
}

bool FDSessionTest::updateConfiguration() {
    StreamConfiguration configuration = {};
    if (mFdSession->getConfiguration(configuration) != 0) return false;
    if (mLastConfiguration.streams.size() == 0) {
        __android_log_print(ANDROID_LOG_INFO, LOG_TAG, "%s: received first configration \n",
                            "threadLoop");
        ZoruUtil::dumpConfiguration(configuration);
    } else if (configuration.streams[0].id != mLastConfiguration.streams[0].id) {
        __android_log_print(ANDROID_LOG_INFO, LOG_TAG, "%s: stream configuration change  \n",
                            "threadLoop");
        ZoruUtil::dumpConfiguration(configuration);
    }
    mLastConfiguration = std::move(configuration);
    return true;
}

void FDSessionTest::serve(CaptureRequest&& request) {
    ZoruUtil::dumpCaptureRequest(request);
    const CaptureResult result = answerTo(std::move(request), BufferStatus::OK);
    // The wrapper is kept until the result is sent.
    const sp<GraphicBuffer> filled = fill(result.outputBuffers[0]);
    mFdSession->sendCaptureResult(result);
}

sp<GraphicBuffer> FDSessionTest::fill(const StreamBuffer& buffer) {
    const auto& stream = mLastConfiguration.streams[0];
    sp<GraphicBuffer> graphicBuffer =
        new GraphicBuffer(buffer.buffer, GraphicBuffer::CLONE_HANDLE, stream.width, stream.height,
                          HAL_PIXEL_FORMAT_YCBCR_420_888, 1, stream.usage, stream.width);
    if (graphicBuffer->initCheck() != 0) {
        __android_log_print(ANDROID_LOG_ERROR, LOG_TAG, "%s: GraphicBuffer failed \n",
                            "threadLoop");
        return graphicBuffer;
    }
    uint8_t* const frame = mFile.getFrame();
    if (frame == nullptr) return graphicBuffer;
    if (packedBytes(graphicBuffer->width, graphicBuffer->height) >
        packedBytes(kFrameWidth, kFrameHeight)) {
        __android_log_print(ANDROID_LOG_ERROR, LOG_TAG,
                            "%s: a frame of the file is too small for width(%d) height(%d) \n",
                            "threadLoop", graphicBuffer->width, graphicBuffer->height);
        return graphicBuffer;
    }
    ZoruUtil::copyTo(frame, graphicBuffer);
    return graphicBuffer;
}

}  // namespace vendor::zoru::zoruprovider::fdstream::V1_0::implementation
