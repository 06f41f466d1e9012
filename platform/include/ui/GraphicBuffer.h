#pragma once

#include <cstdint>

#include <cutils/native_handle.h>
#include <system/graphics.h>
#include <utils/Errors.h>
#include <utils/RefBase.h>

namespace android {

using PixelFormat = int32_t;

/**
 * A graphics buffer in this process. It works on an imported clone of the handle that it was given,
 * so it stays valid when that handle is freed. Shared, not copied; the locks of two threads count.
 */
class GraphicBuffer : virtual public RefBase {
public:
    enum HandleWrapMethod : uint8_t { CLONE_HANDLE = 3 };

    /**
     * Clones and imports `handle`, and checks width and height against the buffer. On failure the
     * object exists all the same: width, height, stride, format and usage 0, `handle` null, and
     * initCheck() says why. `stride` is stored and not compared.
     */
    GraphicBuffer(const native_handle_t* handle, HandleWrapMethod method, uint32_t width,
                  uint32_t height, PixelFormat format, uint32_t layerCount, uint64_t usage,
                  uint32_t stride);

    /** 0 when the object holds a buffer. */
    status_t initCheck() const { return mInitCheck; }

    uint32_t getWidth() const { return static_cast<uint32_t>(width); }
    uint32_t getHeight() const { return static_cast<uint32_t>(height); }
    uint64_t getUsage() const { return mUsage; }

    /**
     * Locks the whole buffer for the processor and reports its own addresses and strides. `inUsage`
     * needs processor bits. On failure a status that is not 0 (a mapper's number is positive), and
     * `ycbcr` is left alone.
     */
    status_t lockYCbCr(uint32_t inUsage, android_ycbcr* ycbcr);
    /** 0 even when the mapper refuses. */
    status_t unlock();

    // Constant after construction.
    int width = 0;
    int height = 0;
    int stride = 0;
    int format = 0;
    buffer_handle_t handle = nullptr;

protected:
    ~GraphicBuffer() override;

private:
    status_t mInitCheck;
    uint64_t mUsage = 0;
};

}  // namespace android
