#pragma once

#include <ui/GraphicBuffer.h>

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

#include "host/buffer.h"

namespace bench {

struct FrameSize {
    const char* name;
    uint32_t width;
    uint32_t height;

    constexpr size_t packedBytes() const { return size_t{width} * height / 2 * 3; }
};

constexpr FrameSize kSizes[] = {{"720p", 1280, 720}, {"1080p", 1920, 1080}, {"4K", 3840, 2160}};

/** A frame in a buffer of a client, wrapped as the session wraps it. */
struct FrameBuffer {
    /** The stride is that of the luma in bytes; ends the program when memory is short. */
    FrameBuffer(FrameSize frameSize, uint32_t stride);

    host::Buffer memory;
    android::sp<android::GraphicBuffer> wrapped;

    uint8_t* luma() const { return memory.lumaRow(0); }
    uint8_t* chroma() const { return memory.chromaRow(0); }
    int lumaStride() const { return static_cast<int>(memory.geometry().stride); }
    int chromaStride() const { return static_cast<int>(memory.geometry().chromaStride); }
    int width() const { return static_cast<int>(memory.geometry().width); }
    int height() const { return static_cast<int>(memory.geometry().height); }
    /** The rows without their padding. */
    std::vector<uint8_t> packed() const;
    void fill(const std::vector<uint8_t>& packed);
};

/** Bytes that no turn or shift leaves alike. */
std::vector<uint8_t> testFrame(FrameSize size);

/**
 * Frames to work on in turn: one, which then stays in the cache, or so many that each has left it
 * when its turn comes again.
 */
class WorkingSet {
public:
    WorkingSet(FrameSize size, uint32_t stride, bool inCache);

    FrameBuffer& next() {
        mNext = mNext + 1 == mFrames.size() ? 0 : mNext + 1;
        return mFrames[mNext];
    }

private:
    std::vector<FrameBuffer> mFrames;
    size_t mNext = 0;
};

}  // namespace bench
