#pragma once

#include "source/ffmpeg.h"
#include "source/orientation.h"

namespace camera {

/** How the samples of a frame become a picture: upright, of square pixels. Value type. */
struct PictureShape {
    FrameSize frame{};    ///< in samples
    FrameSize squared{};  ///< in square pixels, not yet turned
    Orientation orientation{};

    FrameSize picture() const { return orientation.turned(squared); }
    /** The samples that are in this part of the picture, rounded outward to pairs of chroma. */
    Rect samplesOf(const Rect& view) const;
};

/** By what the frame says of itself, else its stream, which may be null. */
PictureShape shapeOf(const AVFrame& frame, const AVStream* stream);

}  // namespace camera
