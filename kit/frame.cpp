#include "frame.h"

#include <err.h>

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <optional>
#include <random>
#include <utility>

namespace kit {

namespace {

/** Where the y-th row begins, counted through luma and chroma. */
uint8_t* rowOf(const host::Buffer& buffer, uint32_t y) {
    const uint32_t height = buffer.geometry().height;
    return y < height ? buffer.lumaRow(y) : buffer.chromaRow(y - height);
}

}  // namespace

Frame patternOf(FrameSize size, unsigned seed) {
    Frame frame(size.bytes());
    std::minstd_rand random(seed);
    std::generate(frame.begin(), frame.end(), [&] { return static_cast<uint8_t>(random() >> 8); });
    return frame;
}

Frame turnedBy180(const Frame& frame, FrameSize size) {
    Frame turned = frame;
    const auto chroma = turned.begin() + static_cast<std::ptrdiff_t>(size.lumaBytes());
    std::reverse(turned.begin(), chroma);
    if (size.height < 4) return turned;
    const std::ptrdiff_t rows = size.height / 2;
    for (std::ptrdiff_t y = 0; y < rows; ++y) {
        const auto to = chroma + y * size.width;
        const uint8_t* const from = &frame[size.lumaBytes()] + (rows - 1 - y) * size.width;
        const int pairs = size.width / 2;
        for (int x = 0; x < size.width; ++x)
            to[x] = from[x / 2 < pairs ? (pairs - 1 - x / 2) * 2 + x % 2 : x];
    }
    return turned;
}

std::string difference(const Frame& got, const Frame& expected, FrameSize size) {
    const auto [here, there] =
        std::mismatch(got.begin(), got.end(), expected.begin(), expected.end());
    if (here == got.end() && there == expected.end()) return {};
    const auto offset = static_cast<size_t>(here - got.begin());
    const bool luma = offset < size.lumaBytes();
    const size_t inPlane = luma ? offset : offset - size.lumaBytes();
    const auto width = static_cast<size_t>(size.width);
    return std::string(luma ? "luma" : "chroma") + " row " + std::to_string(inPlane / width) +
           ", byte " + std::to_string(inPlane % width);
}

host::Buffer allocate(FrameSize size, const host::BufferGeometry& other) {
    host::BufferGeometry geometry = other;
    geometry.width = static_cast<uint32_t>(size.width);
    geometry.height = static_cast<uint32_t>(size.height);
    std::optional<host::Buffer> buffer = host::Buffer::allocate(geometry);
    if (!buffer) errx(EXIT_FAILURE, "no memory for a buffer of %d x %d", size.width, size.height);
    return std::move(*buffer);
}

FrameSize sizeOf(const host::Buffer& buffer) {
    return {static_cast<int>(buffer.geometry().width), static_cast<int>(buffer.geometry().height)};
}

Frame packed(const host::Buffer& buffer) {
    const FrameSize size = sizeOf(buffer);
    Frame frame;
    frame.reserve(size.bytes());
    for (uint32_t y = 0; y < size.rows(); ++y) {
        const uint8_t* const row = rowOf(buffer, y);
        frame.insert(frame.end(), row, row + size.width);
    }
    return frame;
}

void fill(const host::Buffer& buffer, const Frame& frame) {
    const FrameSize size = sizeOf(buffer);
    const auto width = static_cast<size_t>(size.width);
    for (uint32_t y = 0; y < size.rows(); ++y)
        memcpy(rowOf(buffer, y), &frame[y * width], width);
}

}  // namespace kit
