#include <ui/GraphicBuffer.h>

#include <atomic>

#include "buffer_mapper.h"
#include "host/buffer.h"

namespace {
std::atomic<int> nextUnlockStatus{0};
}  // namespace

namespace host {
void failNextUnlock(int status) {
    nextUnlockStatus = status;
}
}  // namespace host

namespace android {

using host::detail::BufferMapper;
using host::detail::MapperError;

namespace {

/** Imports the buffer if it is large enough for what the caller will take it for. */
MapperError importChecked(const native_handle_t* handle, uint32_t width, uint32_t height,
                          buffer_handle_t& imported) {
    BufferMapper& mapper = BufferMapper::get();
    const MapperError error = mapper.import(handle, imported);
    if (error != MapperError::NONE) return error;
    const std::optional<host::BufferGeometry> geometry = mapper.geometryOf(imported);
    if (geometry && width > 0 && height > 0 && width <= geometry->width &&
        height <= geometry->height) {
        return MapperError::NONE;
    }
    mapper.free(imported);
    imported = nullptr;
    return MapperError::BAD_VALUE;
}

}  // namespace

GraphicBuffer::GraphicBuffer(const native_handle_t* sourceHandle, HandleWrapMethod /*method*/,
                             uint32_t inWidth, uint32_t inHeight, PixelFormat inFormat,
                             uint32_t /*layerCount*/, uint64_t usage, uint32_t inStride) {
    // The import makes the clone that this buffer works on.
    const MapperError error = importChecked(sourceHandle, inWidth, inHeight, handle);
    mInitCheck = static_cast<status_t>(error);
    if (error != MapperError::NONE) return;
    width = static_cast<int>(inWidth);
    height = static_cast<int>(inHeight);
    stride = static_cast<int>(inStride);
    format = inFormat;
    mUsage = usage;
}

GraphicBuffer::~GraphicBuffer() {
    if (handle != nullptr) BufferMapper::get().free(handle);
}

status_t GraphicBuffer::lockYCbCr(uint32_t inUsage, android_ycbcr* ycbcr) {
    host::detail::MapperLayout layout{};
    const MapperError error =
        BufferMapper::get().lockYCbCr(handle, inUsage, {0, 0, width, height}, layout);
    if (error != MapperError::NONE) return static_cast<status_t>(error);
    ycbcr->y = layout.y;
    ycbcr->cb = layout.cb;
    ycbcr->cr = layout.cr;
    ycbcr->ystride = layout.yStride;
    ycbcr->cstride = layout.cStride;
    ycbcr->chroma_step = layout.chromaStep;
    return NO_ERROR;
}

status_t GraphicBuffer::unlock() {
    BufferMapper::get().unlock(handle);
    return nextUnlockStatus.exchange(0);
}

}  // namespace android
