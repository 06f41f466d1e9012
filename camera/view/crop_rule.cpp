#include "view/crop_rule.h"

#include <algorithm>
#include <cmath>

namespace camera {

namespace {

constexpr int kGrid = 2;  // of the chroma
constexpr int kLeast = 16;

/** One axis of a rectangle, in pixels of the picture, not yet rounded. */
struct Side {
    double from;
    double length;

    double middle() const { return from + length / 2; }
    void resize(double to) {
        from = middle() - to / 2;
        length = to;
    }
    void moveInside(double extent) { from = std::max(0.0, std::min(from, extent - length)); }
};

/** In the picture's pixels, and clipped to them; of no length when nothing is left. */
Side clipped(int from, int length, int of, int extent) {
    const double scale = double(extent) / of;
    const double begin = std::clamp(from * scale, 0.0, double(extent));
    const double end = std::clamp((double(from) + length) * scale, 0.0, double(extent));
    return {begin, std::max(0.0, end - begin)};
}

void growTo(Side& side, double length, int extent, Side& other, double otherPerSide) {
    if (length <= extent) {
        side.resize(length);
        return;
    }
    side = {0, double(extent)};
    other.resize(extent * otherPerSide);
}

/** Outward to the grid, at least the least, and inside. */
void round(const Side& side, int extent, int& from, int& length) {
    // What is a whole number but for the last bits stays that number.
    constexpr double kNothing = 1e-6;
    const int begin = static_cast<int>(std::floor(side.from + kNothing)) / kGrid * kGrid;
    const int end = static_cast<int>(std::ceil(side.from + side.length - kNothing));
    length = std::max((end - begin + kGrid - 1) / kGrid * kGrid, kLeast);
    length = std::min(length, extent);
    from = std::min(begin, extent - length) / kGrid * kGrid;
    // An odd picture's last column or row belongs to the pair before it.
    if (from + length > extent || extent - from - length == 1) length = extent - from;
}

}  // namespace

Rect viewFor(const Rect& wanted, FrameSize frame, FrameSize picture, FrameSize stream) {
    Side x = {0, double(picture.width)};
    Side y = {0, double(picture.height)};
    if (frame.width > 0 && frame.height > 0) {
        const Side wantedX = clipped(wanted.x, wanted.width, frame.width, picture.width);
        const Side wantedY = clipped(wanted.y, wanted.height, frame.height, picture.height);
        if (wantedX.length > 0 && wantedY.length > 0) {
            x = wantedX;
            y = wantedY;
        }
    }
    const double shape = double(stream.width) / stream.height;
    if (x.length < y.length * shape) {
        growTo(x, y.length * shape, picture.width, y, 1 / shape);
    } else {
        growTo(y, x.length / shape, picture.height, x, shape);
    }
    x.moveInside(picture.width);
    y.moveInside(picture.height);
    Rect view;
    round(x, picture.width, view.x, view.width);
    round(y, picture.height, view.y, view.height);
    return view;
}

}  // namespace camera
