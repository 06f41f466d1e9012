#pragma once

#include <cstddef>

#include "frame.h"
#include "host/buffer.h"

namespace tools {

/** Bytes of a row of chroma with all its pairs: (width + 1) / 2 of them. */
constexpr int chromaBytes(kit::FrameSize size) {
    return (size.width + 1) / 2 * 2;
}

/** Rows of chroma with none left out. */
constexpr int chromaRows(kit::FrameSize size) {
    return (size.height + 1) / 2;
}

constexpr size_t wholeBytes(kit::FrameSize size) {
    return size.lumaBytes() +
           static_cast<size_t>(chromaBytes(size)) * static_cast<size_t>(chromaRows(size));
}

/**
 * The frame in a buffer as NV12 without padding, the last column and row of chroma of an odd size
 * included: what other programs take NV12 of that size for. With even sides it is kit::packed().
 */
kit::Frame wholeFrame(const host::Buffer& buffer);

}  // namespace tools
