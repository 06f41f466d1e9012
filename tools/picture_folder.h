#pragma once

#include <cstdint>
#include <filesystem>

#include "frame.h"

namespace tools {

/** A folder with a picture of each frame. */
class PictureFolder {
public:
    explicit PictureFolder(std::filesystem::path path) : mPath(std::move(path)) {}

    /** Makes the folder. False after a sentence on stderr. */
    bool make() const;
    /** Removes the pictures of an earlier, longer scene. False after a sentence on stderr. */
    bool clear() const;
    /** Where the picture of this number is, or will be. */
    std::filesystem::path pictureOf(uint32_t number) const;
    /** False after a sentence on stderr. */
    bool save(uint32_t number, const kit::Frame& frame, kit::FrameSize size) const;

private:
    std::filesystem::path mPath;
};

}  // namespace tools
