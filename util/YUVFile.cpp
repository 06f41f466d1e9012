#include "YUVFile.h"

#include <android/log.h>
#include <hardware/gralloc.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <limits>

#include "FrameCopy.h"
#include "ZoruUtil.h"

#define LOG_TAG "zoruutil"

namespace vendor::zoru::zoruprovider::fdstream::V1_0::implementation {

namespace {
/** width x height x 3 has to be a signed 32-bit number; it is checked before it is formed. */
bool isFrame(int width, int height) {
    return width >= 1 && height >= 1 &&
           int64_t{width} * height <= std::numeric_limits<int32_t>::max() / 3;
}
}  // namespace

YUVFile::YUVFile(const char* inFile, int inWidth, int inHeight)
    : pBuffer(nullptr), fileName{}, pFile(nullptr), width(inWidth), height(inHeight) {
    if (inFile == nullptr || !isFrame(width, height)) {
        __android_log_print(ANDROID_LOG_ERROR, LOG_TAG,
                            "invalid args: inFile(%p) width(%d) height(%d) \n",
                            static_cast<const void*>(inFile), width, height);
        return;
    }
    strncpy(fileName, inFile, sizeof(fileName) - 1);
    pBuffer = static_cast<uint8_t*>(calloc(1, frameSize()));
    if (pBuffer == nullptr) {
        __android_log_print(ANDROID_LOG_ERROR, LOG_TAG, "pBuffer allocation failed, size - %d \n",
                            static_cast<int>(frameSize()));
    }
}

YUVFile::~YUVFile() {
    free(pBuffer);
    if (pFile != nullptr) fclose(pFile);
}

size_t YUVFile::frameSize() const {
    return static_cast<size_t>((width * height * 3) / 2);
}

bool YUVFile::ensureOpen(const char* mode) {
    if (pFile == nullptr) pFile = fopen(fileName, mode);
    if (pFile != nullptr) return true;
    __android_log_print(ANDROID_LOG_ERROR, LOG_TAG, "file %s open failed, error - %s \n", fileName,
                        strerror(errno));
    return false;
}

uint8_t* YUVFile::getFrame() {
    if (pBuffer == nullptr) return nullptr;
    if (!ensureOpen("rb")) return nullptr;
    if (fread(pBuffer, 1, frameSize(), pFile) == frameSize()) return pBuffer;
    // Not rewind(), which may hide why a pipe cannot be played in a loop.
    errno = 0;
    fseek(pFile, 0, SEEK_SET);
    clearerr(pFile);
    const size_t count = fread(pBuffer, 1, frameSize(), pFile);
    if (count == frameSize()) return pBuffer;
    __android_log_print(ANDROID_LOG_ERROR, LOG_TAG,
                        "file reading failed, status - %d error - %s \n", static_cast<int>(count),
                        strerror(errno));
    return nullptr;
}

int YUVFile::putFrame() {
    if (!ensureOpen("wb+")) return -1;
    if (pBuffer == nullptr) return -1;
    const size_t count = fwrite(pBuffer, 1, frameSize(), pFile);
    if (count == frameSize() && fflush(pFile) == 0) return static_cast<int>(count);
    __android_log_print(ANDROID_LOG_ERROR, LOG_TAG,
                        "file writing failed, status - %d error - %s \n", static_cast<int>(count),
                        strerror(errno));
    return -1;
}

int YUVFile::putFrame(sp<GraphicBuffer> buffer) {
    if (buffer == nullptr) {
        __android_log_print(ANDROID_LOG_ERROR, LOG_TAG, "invalid Graphics buffer \n");
        return -1;
    }
    if (pBuffer != nullptr && !holds(buffer->width, buffer->height)) return -1;
    if (ZoruUtil::copyFrom(pBuffer, buffer) != 0) {
        __android_log_print(ANDROID_LOG_ERROR, LOG_TAG, "Failed to from Graphics buffer \n");
        return -1;
    }
    return putFrame();
}

int YUVFile::putFrame(native_handle* handle) {
    if (handle == nullptr) {
        __android_log_print(ANDROID_LOG_ERROR, LOG_TAG, " Invalid handle \n");
        return -1;
    }
    const sp<GraphicBuffer> buffer =
        new GraphicBuffer(handle, GraphicBuffer::CLONE_HANDLE, static_cast<uint32_t>(width),
                          static_cast<uint32_t>(height), HAL_PIXEL_FORMAT_YCBCR_420_888, 1,
                          GRALLOC_USAGE_SW_READ_OFTEN, static_cast<uint32_t>(width));
    if (buffer->initCheck() != 0) {
        __android_log_print(ANDROID_LOG_ERROR, LOG_TAG, "Failed to get Graphics buffer \n");
        return -1;
    }
    return putFrame(buffer);
}

int YUVFile::putFrame(zoru_ycbcr& frame) {
    if (frame.y == nullptr || frame.cb == nullptr || frame.cr == nullptr || pBuffer == nullptr) {
        __android_log_print(ANDROID_LOG_ERROR, LOG_TAG, " Invalid handle \n");
        return -1;
    }
    // A record without an extent has no rows.
    if (frame.width >= 1 && frame.height >= 1) {
        if (!holds(frame.width, frame.height)) return -1;
        copyFrame(packedView(pBuffer, frame.width, frame.height), viewOf(frame), frame.width,
                  frame.height);
    }
    return putFrame();
}

bool YUVFile::holds(int frameWidth, int frameHeight) const {
    if (packedBytes(frameWidth, frameHeight) <= static_cast<int64_t>(frameSize())) return true;
    __android_log_print(ANDROID_LOG_ERROR, LOG_TAG,
                        "frame is too large: width(%d) height(%d), file width(%d) height(%d) \n",
                        frameWidth, frameHeight, width, height);
    return false;
}

}  // namespace vendor::zoru::zoruprovider::fdstream::V1_0::implementation
