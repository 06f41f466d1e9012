#include "whole_frame.h"

#include <cstdint>

namespace tools {

kit::Frame wholeFrame(const host::Buffer& buffer) {
    const kit::FrameSize size = kit::sizeOf(buffer);
    kit::Frame frame;
    frame.reserve(wholeBytes(size));
    const auto append = [&](const uint8_t* row, int bytes) {
        frame.insert(frame.end(), row, row + bytes);
    };
    for (int y = 0; y < size.height; ++y)
        append(buffer.lumaRow(static_cast<uint32_t>(y)), size.width);
    for (int y = 0; y < chromaRows(size); ++y)
        append(buffer.chromaRow(static_cast<uint32_t>(y)), chromaBytes(size));
    return frame;
}

}  // namespace tools
