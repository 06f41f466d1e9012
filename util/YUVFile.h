#pragma once

#include <cutils/native_handle.h>
#include <ui/GraphicBuffer.h>
#include <utils/StrongPointer.h>

#include <cstdint>
#include <cstdio>

#include "zoru_ycbcr.h"

namespace vendor::zoru::zoruprovider::fdstream::V1_0::implementation {

using ::android::GraphicBuffer;
using ::android::sp;

/**
 * A raw file of uncompressed 4:2:0 frames of one size, back to back and without a header, read or
 * written one frame at a time. A frame is frameSize = (width x height x 3) / 2 bytes: the luma
 * rows, then the rows of interleaved chroma.
 *
 * An object serves one direction: reading plays the file in a loop, writing appends to a file that
 * is emptied when the first frame is written. Owns its frame memory and its stream; not copied. One
 * thread at a time.
 */
class [[gnu::visibility("default")]] YUVFile {
public:
    /**
     * Opens nothing. At most 255 characters of the path are kept. Without a path, with a width or
     * height below 1, or when width x height x 3 is over 31 bits, the object has no frame memory
     * and every operation fails.
     */
    YUVFile(const char* inFile, int width, int height);
    ~YUVFile();
    YUVFile(const YUVFile&) = delete;
    YUVFile& operator=(const YUVFile&) = delete;

    /** The next whole frame, the first one again after the last; null when the file has none. The
     * memory belongs to the object: the next frame overwrites it. */
    uint8_t* getFrame();

    /** Appends the frame memory: frameSize, or -1. */
    int putFrame();
    /** Appends a buffer's frame. A smaller one leaves the rest as it was, a larger one is refused.
     */
    int putFrame(sp<GraphicBuffer> buffer);
    /** Appends the frame of a buffer of this file's size. The handle stays the caller's. */
    int putFrame(native_handle * handle);
    /** Appends a described frame; its chroma is always taken as interleaved. Sizes as above. */
    int putFrame(zoru_ycbcr & frame);

private:
    /** Opens the file unless it is open; after a failure the next call tries again. */
    [[nodiscard]] bool ensureOpen(const char* mode);
    size_t frameSize() const;
    /** Whether a frame of this size fits in the frame memory; the log says when not. */
    [[nodiscard]] bool holds(int frameWidth, int frameHeight) const;

    uint8_t* pBuffer;
    char fileName[256];
    FILE* pFile;
    int32_t width;
    int32_t height;
};

}  // namespace vendor::zoru::zoruprovider::fdstream::V1_0::implementation
