#pragma once

#include <vector>

#include "view/announcements.h"
#include "view/geometry.h"

/** Where faces are: what is known of them without looking at a picture. */
namespace camera {

/** The area that two parts share, of the area that they cover together: 0 to 1. */
double overlap(const Rect& a, const Rect& b);

/**
 * Where a part of a frame is in the picture, in whose `view` the frame shows. Outward to whole
 * pixels. A pure function. REQUIRES: the frame has a size.
 */
Rect inPicture(const Rect& inFrame, FrameSize frame, const Rect& view, bool isTurned);
/** The other way. REQUIRES: the view has a size. */
Rect inFrame(const Rect& inPicture, FrameSize frame, const Rect& view, bool isTurned);

/** Lets a face count from its second detection in a row on: one detector's slips are seldom two. */
class SteadyFaces {
public:
    /** Those of the places where a face was found, too, in what was looked at before. */
    std::vector<bool> counting(const std::vector<Rect>& places);

private:
    std::vector<Rect> mBefore;
};

}  // namespace camera
