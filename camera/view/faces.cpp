#include "view/faces.h"

#include <algorithm>
#include <cmath>
#include <cstdint>

namespace camera {

namespace {

constexpr double kSameFace = 0.3;

double area(const Rect& rect) {
    return double(rect.width) * rect.height;
}

int common(int from, int length, int otherFrom, int otherLength) {
    return std::max(0,
                    std::min(from + length, otherFrom + otherLength) - std::max(from, otherFrom));
}

/** A part of a length of `of`, as a part of `to`'s that begins at `start`, outward. */
void scale(int from, int length, int of, int start, int to, int& scaledFrom, int& scaledLength) {
    constexpr double kNothing = 1e-6;
    const double factor = double(to) / of;
    const double begin = std::floor(start + from * factor + kNothing);
    const double end = std::ceil(start + (double(from) + length) * factor - kNothing);
    scaledFrom = static_cast<int>(begin);
    scaledLength = static_cast<int>(end - begin);
}

Rect turnedIn(const Rect& rect, FrameSize size) {
    return {size.width - rect.x - rect.width, size.height - rect.y - rect.height, rect.width,
            rect.height};
}

}  // namespace

double overlap(const Rect& a, const Rect& b) {
    const double both =
        double(common(a.x, a.width, b.x, b.width)) * common(a.y, a.height, b.y, b.height);
    return both > 0 ? both / (area(a) + area(b) - both) : 0;
}

Rect inPicture(const Rect& inFrame, FrameSize frame, const Rect& view, bool isTurned) {
    const Rect upright = isTurned ? turnedIn(inFrame, frame) : inFrame;
    Rect place;
    scale(upright.x, upright.width, frame.width, view.x, view.width, place.x, place.width);
    scale(upright.y, upright.height, frame.height, view.y, view.height, place.y, place.height);
    return place;
}

Rect inFrame(const Rect& inPicture, FrameSize frame, const Rect& view, bool isTurned) {
    Rect place;
    scale(inPicture.x - view.x, inPicture.width, view.width, 0, frame.width, place.x, place.width);
    scale(inPicture.y - view.y, inPicture.height, view.height, 0, frame.height, place.y,
          place.height);
    return isTurned ? turnedIn(place, frame) : place;
}

std::vector<bool> SteadyFaces::counting(const std::vector<Rect>& places) {
    std::vector<bool> counting;
    counting.reserve(places.size());
    for (const Rect& place : places) {
        counting.push_back(std::any_of(mBefore.begin(), mBefore.end(), [&](const Rect& before) {
            return overlap(place, before) >= kSameFace;
        }));
    }
    mBefore = places;
    return counting;
}

}  // namespace camera
