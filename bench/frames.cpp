#include "frames.h"

#include <err.h>
#include <system/graphics.h>

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <random>
#include <utility>

namespace bench {

namespace {

constexpr size_t kOutOfCache = size_t{384} << 20;  // more than most processors can keep

host::Buffer allocate(FrameSize size, uint32_t stride) {
    host::BufferGeometry geometry;
    geometry.width = size.width;
    geometry.height = size.height;
    geometry.stride = stride;
    std::optional<host::Buffer> buffer = host::Buffer::allocate(geometry);
    if (!buffer) errx(EXIT_FAILURE, "no memory for a buffer of %u x %u", size.width, size.height);
    return std::move(*buffer);
}

}  // namespace

FrameBuffer::FrameBuffer(FrameSize frameSize, uint32_t stride)
    : memory(allocate(frameSize, stride)),
      wrapped(new android::GraphicBuffer(
          memory.handle(), android::GraphicBuffer::CLONE_HANDLE, frameSize.width, frameSize.height,
          HAL_PIXEL_FORMAT_YCBCR_420_888, 1, memory.geometry().usage, frameSize.width)) {}

std::vector<uint8_t> FrameBuffer::packed() const {
    const host::BufferGeometry& geometry = memory.geometry();
    std::vector<uint8_t> rows;
    for (uint32_t y = 0; y < geometry.height; ++y)
        rows.insert(rows.end(), memory.lumaRow(y), memory.lumaRow(y) + geometry.width);
    for (uint32_t y = 0; y < geometry.height / 2; ++y)
        rows.insert(rows.end(), memory.chromaRow(y), memory.chromaRow(y) + geometry.width);
    return rows;
}

void FrameBuffer::fill(const std::vector<uint8_t>& packed) {
    const host::BufferGeometry& geometry = memory.geometry();
    const uint8_t* row = packed.data();
    for (uint32_t y = 0; y < geometry.height; ++y, row += geometry.width)
        memcpy(memory.lumaRow(y), row, geometry.width);
    for (uint32_t y = 0; y < geometry.height / 2; ++y, row += geometry.width)
        memcpy(memory.chromaRow(y), row, geometry.width);
}

std::vector<uint8_t> testFrame(FrameSize size) {
    std::vector<uint8_t> bytes(size.packedBytes());
    std::minstd_rand random(7);
    std::generate(bytes.begin(), bytes.end(), [&] { return static_cast<uint8_t>(random() >> 8); });
    return bytes;
}

WorkingSet::WorkingSet(FrameSize size, uint32_t stride, bool inCache) {
    const size_t count = inCache ? 1 : kOutOfCache / size.packedBytes() + 1;
    const std::vector<uint8_t> frame = testFrame(size);
    while (mFrames.size() < count)
        mFrames.emplace_back(size, stride).fill(frame);
}

}  // namespace bench
