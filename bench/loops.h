#pragma once

#include <string>

#include "bench.h"
#include "roads.h"

/** Loops of one process that play a clip, scale it to a size, and look at every frame's luma. */
namespace bench {

/** Once through the clip. Throws Wrong when it cannot. */
using Loop = std::function<void(const Look& look)>;

/** Of libavcodec and libswscale, to a semi-planar frame as ours is. */
Loop libavLoop(const std::string& clip, kit::FrameSize size);
/** OpenCV's own: cv::VideoCapture, and its greys. Null where that is not there. */
Loop openCvLoop(const std::string& clip, kit::FrameSize size);
/**
 * GStreamer's, in RGB, with its own detector if it `detects`; gives the number of faces that it has
 * found. Null, and why in `problem`, when something of it is missing.
 */
using FacesLoop = std::function<double()>;
FacesLoop gstLoop(const std::string& clip, kit::FrameSize size, bool detects, std::string& problem);

}  // namespace bench
