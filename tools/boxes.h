#pragma once

#include <vector>

#include "frame.h"
#include "view/geometry.h"

namespace tools {

/** Draws the outline of each part into a frame as wholeFrame() has it, as thick as so many pixels.
 */
void drawBoxes(kit::Frame& frame, kit::FrameSize size, const std::vector<camera::Rect>& boxes,
               int thickness);

}  // namespace tools
