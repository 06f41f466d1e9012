#pragma once

#include <cstddef>
#include <cstdint>
#include <filesystem>
#include <fstream>
#include <optional>
#include <string>

#include "frame.h"

namespace tools {

/**
 * A headerless NV12 file, read without the library's help, so that what came through the library
 * can be compared with it. Owns its stream; moved, not copied. One thread at a time.
 */
class Nv12File {
public:
    /** Nothing, and the reason in `problem`, unless the file has at least one whole frame. */
    static std::optional<Nv12File> open(const std::filesystem::path& path, std::string& problem);

    size_t frameCount() const { return mFrameCount; }
    /** Bytes after the last whole frame, which nobody plays. */
    size_t tailBytes() const { return mTailBytes; }
    /** The frame of this index, counted round and round; empty when it can't be read any more. */
    Frame frame(size_t index);

private:
    Nv12File(std::ifstream stream, size_t size);

    std::ifstream mStream;
    size_t mFrameCount;
    size_t mTailBytes;
};

}  // namespace tools
