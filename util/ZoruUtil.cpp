#include "ZoruUtil.h"

#include <android/log.h>

#include <utility>

#include "FrameCopy.h"

#define LOG_TAG "zoruutil"

namespace vendor::zoru::zoruprovider::fdstream::V1_0::implementation {

using ::android::hardware::camera::device::V3_2::Stream;
using ::android::hardware::camera::device::V3_2::StreamBuffer;

namespace {

int lockWhole(const sp<GraphicBuffer>& buffer, android_ycbcr& ycbcr) {
    return buffer->lockYCbCr(static_cast<uint32_t>(buffer->getUsage()), &ycbcr);
}

bool isSemiPlanar(const android_ycbcr& ycbcr) {
    if (ycbcr.chroma_step == 2) return true;
    if (ycbcr.chroma_step == 1) {
        __android_log_print(ANDROID_LOG_ERROR, LOG_TAG, "420 planar format is not handled \n");
        return false;
    }
    __android_log_print(
        ANDROID_LOG_ERROR, LOG_TAG,
        " unhanlded buffer format: y(%p) cb(%p) cr(%p) ystride(%zu) cstride(%zu) chroma_step(%zu) \n",
        ycbcr.y, ycbcr.cb, ycbcr.cr, ycbcr.ystride, ycbcr.cstride, ycbcr.chroma_step);
    return false;
}

bool covers(const sp<GraphicBuffer>& src, const sp<GraphicBuffer>& dst) {
    if (src->width >= dst->width && src->height >= dst->height) return true;
    __android_log_print(ANDROID_LOG_ERROR, LOG_TAG,
                        "source is smaller: width(%d) height(%d), not width(%d) height(%d) \n",
                        src->width, src->height, dst->width, dst->height);
    return false;
}

enum class Direction { FROM_BUFFER, TO_BUFFER };

/** Copies between a packed frame and a buffer. The two directions' messages differ by a blank. */
int copyPacked(uint8_t* memory, const sp<GraphicBuffer>& buffer, Direction direction) {
    const char* const blank = direction == Direction::FROM_BUFFER ? " " : "";
    if (memory == nullptr) {
        __android_log_print(ANDROID_LOG_ERROR, LOG_TAG, "Invalid params: buffer(%p) \n",
                            static_cast<void*>(memory));
        return -1;
    }
    android_ycbcr ycbcr = {};
    int status = lockWhole(buffer, ycbcr);
    if (status != 0) {
        __android_log_print(ANDROID_LOG_ERROR, LOG_TAG, "lockYCbCr failed, error%s(%d) \n", blank,
                            status);
        return -1;
    }
    const bool handled = isSemiPlanar(ycbcr);
    if (handled) {
        FrameView dst = packedView(memory, buffer->width, buffer->height);
        FrameView src = viewOf(ycbcr);
        if (direction == Direction::TO_BUFFER) std::swap(dst, src);
        copyFrame(dst, src, buffer->width, buffer->height);
    }
    status = buffer->unlock();
    if (status != 0) {
        __android_log_print(ANDROID_LOG_ERROR, LOG_TAG, "unlock failed, error%s(%d) \n", blank,
                            status);
        return -1;
    }
    return handled ? 0 : -1;
}

}  // namespace

int ZoruUtil::copyFrom(uint8_t* dst, sp<GraphicBuffer> src) {
    return copyPacked(dst, src, Direction::FROM_BUFFER);
}

int ZoruUtil::copyTo(uint8_t* src, sp<GraphicBuffer> dst) {
    return copyPacked(src, dst, Direction::TO_BUFFER);
}

int ZoruUtil::copy(sp<GraphicBuffer> dst, sp<GraphicBuffer> src) {
    // The numbers in the messages of both copy() overloads are fixed; they are no line numbers.
    android_ycbcr from = {};
    int status = lockWhole(src, from);
    if (status != 0) {
        __android_log_print(ANDROID_LOG_ERROR, LOG_TAG, "%d:lock failed, error (%d) \n", 325,
                            status);
        return -1;
    }
    android_ycbcr to = {};
    status = lockWhole(dst, to);
    if (status != 0) {
        __android_log_print(ANDROID_LOG_ERROR, LOG_TAG, "%d:lock failed, error (%d) \n", 332,
                            status);
        src->unlock();
        return -1;
    }
    const bool semiPlanar = from.chroma_step == 2 && to.chroma_step == 2;
    if (!semiPlanar) {
        __android_log_print(ANDROID_LOG_ERROR, LOG_TAG, "420 planar format is not handled \n");
    }
    const bool handled = semiPlanar && covers(src, dst);
    if (handled) copyFrame(viewOf(to), viewOf(from), dst->width, dst->height);
    src->unlock();
    dst->unlock();
    return handled ? 0 : -1;
}

int ZoruUtil::copy(sp<GraphicBuffer> dst, zoru_ycbcr& src) {
    if (src.y == nullptr || src.cb == nullptr || src.cr == nullptr || dst == nullptr) {
        __android_log_print(ANDROID_LOG_ERROR, LOG_TAG, "%s:%d: Invalid args \n", "copy", 372);
        return -1;
    }
    android_ycbcr ycbcr = {};
    const int status = lockWhole(dst, ycbcr);
    if (status != 0) {
        __android_log_print(ANDROID_LOG_ERROR, LOG_TAG, "%s:%d: lockYCbCr failed, error (%d) \n",
                            "copy", 379, status);
        return -1;
    }
    const bool handled = src.chroma_step == 2 && ycbcr.chroma_step == 2;
    if (handled) {
        copyFrame(viewOf(ycbcr), viewOf(src), dst->width, dst->height);
    } else {
        __android_log_print(ANDROID_LOG_ERROR, LOG_TAG, "420 planar format is not handled \n");
    }
    dst->unlock();
    return handled ? 0 : -1;
}

void ZoruUtil::dumpCaptureRequest(CaptureRequest& request) {
    __android_log_print(ANDROID_LOG_INFO, LOG_TAG, "%s: dumping received capture reqest:  \n",
                        __func__);
    __android_log_print(ANDROID_LOG_INFO, LOG_TAG, "%s: frameNumber(%d)  \n", __func__,
                        static_cast<int>(request.frameNumber));
    __android_log_print(ANDROID_LOG_INFO, LOG_TAG, "%s: outputBuffersCount(%d)  \n", __func__,
                        static_cast<int>(request.outputBuffers.size()));
    for (const StreamBuffer& buffer : request.outputBuffers) {
        __android_log_print(ANDROID_LOG_INFO, LOG_TAG, "%s: streamId(%d) bufferId(%llu) \n",
                            __func__, buffer.streamId,
                            static_cast<unsigned long long>(buffer.bufferId));
    }
}

void ZoruUtil::dumpConfiguration(StreamConfiguration& config) {
    __android_log_print(ANDROID_LOG_INFO, LOG_TAG, "%s: dumping stream configuration:  \n",
                        __func__);
    __android_log_print(ANDROID_LOG_INFO, LOG_TAG, "%s: operationMode(%d)  \n", __func__,
                        static_cast<int>(config.operationMode));
    __android_log_print(ANDROID_LOG_INFO, LOG_TAG, "%s: streamsCount(%d)  \n", __func__,
                        static_cast<int>(config.streams.size()));
    for (const Stream& stream : config.streams) {
        __android_log_print(
            ANDROID_LOG_INFO, LOG_TAG,
            "%s: streamId(%d) streamType(%d) width(%d) height(%d) format(0x%x) usage(0x%x) rotation(%d)\n",
            __func__, stream.id, static_cast<int>(stream.streamType),
            static_cast<int>(stream.width), static_cast<int>(stream.height),
            static_cast<unsigned>(stream.format), static_cast<uint32_t>(stream.usage),
            static_cast<int>(stream.rotation));
    }
}

}  // namespace vendor::zoru::zoruprovider::fdstream::V1_0::implementation
