#pragma once

#include <optional>
#include <string>

#include "view/geometry.h"

namespace camera {

/** How a webcam is to be asked for its pictures; what is not said is chosen. Value type. */
struct CameraMode {
    std::optional<FrameSize> size;
    std::optional<double> rate;  ///< frames a second
    std::string format;          ///< as FFmpeg calls it; empty: chosen
};

/** What a camera plays, and how. Value type. */
struct SourceOptions {
    std::string input;              ///< a file, "-" for the standard input, a device
    std::string format;             ///< as FFmpeg calls it; empty: by the content. "nv12": raw
    std::optional<FrameSize> size;  ///< of raw pictures
    CameraMode camera;              ///< of a webcam
    /** Frames a second: every frame is played. 0: a frame is decoded when it is asked for. */
    std::optional<double> fps;
    bool once = false;        ///< ends the stream where a file ends
    int decodingThreads = 0;  ///< at most 4; 0: as there are processors
};

/** "WIDTHxHEIGHT", both above 0; nothing when it is none. */
std::optional<FrameSize> sizeIn(const std::string& text);
/** "WxH[@RATE][:FORMAT]"; nothing when it is none. */
std::optional<CameraMode> cameraModeIn(const std::string& text);

}  // namespace camera
