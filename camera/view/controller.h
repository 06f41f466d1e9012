#pragma once

#include <chrono>
#include <optional>
#include <vector>

#include "view/geometry.h"

namespace camera {

/**
 * Moves the view of a picture after the faces in it. All that it says follows from what it is told;
 * it knows no clock.
 *
 * It aims at the part of the picture that has all faces with half a face beside each, is at least a
 * third of the picture wide, has the stream's shape, and is inside. What is nearer than a tenth of
 * the view on each side leaves the view at rest, unless it cuts a face. Edges move at most 30 % of
 * the picture's width a second, and more slowly the nearer they are. A face that is missed is kept
 * for half a second; then the view rests, and after two seconds without a face it aims at all of
 * the picture that the stream's shape can show. Value type.
 */
class Controller {
public:
    using Time = std::chrono::nanoseconds;  ///< of any steady clock

    /** REQUIRES: the stream has a size. */
    explicit Controller(FrameSize stream) : mShape(double(stream.width) / stream.height) {}

    /**
     * The view to ask for now, when these faces, in the picture, were in the frame of this time
     * that showed this view. That view is where it starts: the first time, with another size of the
     * picture, and after startAnew(). REQUIRES: picture and view have a size.
     */
    Rect next(const std::vector<Rect>& faces, FrameSize picture, const Rect& view, Time time);
    void startAnew() { mState.reset(); }

private:
    /** In pixels of the picture. */
    struct View {
        double x, y, width, height;
    };
    struct Kept {
        Rect place;
        Time seen;
    };
    struct State {
        FrameSize picture;
        View view;
        Time time;
        Time lastFace;
        std::vector<Kept> faces{};
        bool isMoving = false;
    };

    State begin(FrameSize picture, const Rect& view, Time time) const;
    static void keep(State& state, const std::vector<Rect>& faces, Time time);
    /** Where the view is to go; nothing when it is to stay. */
    std::optional<View> aim(const State& state, Time time) const;
    View around(double x, double y, double width, double height, FrameSize picture) const;
    static bool isNear(const State& state, const View& aim);
    static void approach(State& state, const View& aim, double seconds);

    double mShape;  // width by height
    std::optional<State> mState;
};

}  // namespace camera
