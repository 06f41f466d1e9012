#include "view/controller.h"

#include <algorithm>
#include <cmath>

#include "view/faces.h"

namespace camera {

namespace {

using namespace std::chrono_literals;

constexpr double kMargin = 0.5;     // of a face, on each side
constexpr double kLeast = 1.0 / 3;  // of the picture's width
constexpr double kDeadZone = 0.1;   // of the view
constexpr double kFastest = 0.3;    // of the picture's width, in a second
constexpr double kReachedIn = 0.3;  // seconds, if it kept the speed that its distance gives it
constexpr double kReached = 0.01;   // of the view, where there are faces
constexpr double kSamePlace = 0.5;  // of a pixel
constexpr double kSameFace = 0.1;   // of overlap, from one frame to a next
constexpr auto kKeptFor = 500ms;
constexpr auto kGivenUpAfter = 2s;
constexpr auto kLongestStep = 500ms;  // after a gap it goes on from where it is

/** The most that an edge has to move from one to the other. */
template <typename View>
double distance(const View& from, const View& to) {
    return std::max({std::abs(to.x - from.x), std::abs(to.y - from.y),
                     std::abs(to.x + to.width - from.x - from.width),
                     std::abs(to.y + to.height - from.y - from.height)});
}

}  // namespace

Rect Controller::next(const std::vector<Rect>& faces, FrameSize picture, const Rect& view,
                      Time time) {
    if (!mState || mState->picture.width != picture.width ||
        mState->picture.height != picture.height) {
        mState = begin(picture, view, time);
    }
    State& state = *mState;
    keep(state, faces, time);
    const Time step = std::clamp<Time>(time - state.time, 0ns, kLongestStep);
    state.time = std::max(state.time, time);
    if (const std::optional<View> goal = aim(state, time)) {
        state.isMoving = state.isMoving || !isNear(state, *goal);
        if (state.isMoving) approach(state, *goal, std::chrono::duration<double>(step).count());
    } else {
        state.isMoving = false;
    }
    const auto whole = [](double value) { return static_cast<int>(std::lround(value)); };
    const View& now = state.view;
    const int x = whole(now.x);
    const int y = whole(now.y);
    return {x, y, whole(now.x + now.width) - x, whole(now.y + now.height) - y};
}

Controller::State Controller::begin(FrameSize picture, const Rect& view, Time time) const {
    const View start = around(view.x, view.y, view.width, view.height, picture);
    return {picture, start, time, time};
}

void Controller::keep(State& state, const std::vector<Rect>& faces, Time time) {
    if (!faces.empty()) state.lastFace = time;
    std::vector<Kept> kept;
    kept.reserve(faces.size() + state.faces.size());
    for (const Rect& face : faces)
        kept.push_back({face, time});
    for (const Kept& before : state.faces) {
        const bool isSeen = std::any_of(faces.begin(), faces.end(), [&](const Rect& face) {
            return overlap(face, before.place) >= kSameFace;
        });
        if (!isSeen && time - before.seen <= kKeptFor) kept.push_back(before);
    }
    state.faces = std::move(kept);
}

std::optional<Controller::View> Controller::aim(const State& state, Time time) const {
    const FrameSize picture = state.picture;
    if (state.faces.empty()) {
        if (time - state.lastFace < kGivenUpAfter) return std::nullopt;
        return around(0, 0, picture.width, picture.height, picture);
    }
    double left = picture.width;
    double top = picture.height;
    double right = 0;
    double bottom = 0;
    for (const Kept& face : state.faces) {
        const Rect& place = face.place;
        left = std::min(left, place.x - kMargin * place.width);
        right = std::max(right, place.x + (1 + kMargin) * place.width);
        top = std::min(top, place.y - kMargin * place.height);
        bottom = std::max(bottom, place.y + (1 + kMargin) * place.height);
    }
    const double wider = std::max(0.0, kLeast * picture.width - (right - left));
    return around(left - wider / 2, top, right - left + wider, bottom - top, picture);
}

/** The part of the stream's shape with the same middle, as far as the picture lets it. */
Controller::View Controller::around(double x, double y, double width, double height,
                                    FrameSize picture) const {
    const double most = std::min<double>(picture.width, picture.height * mShape);
    const double grown = std::min(std::max(width, height * mShape), most);
    View view = {x + (width - grown) / 2, y + (height - grown / mShape) / 2, grown, grown / mShape};
    view.x = std::clamp(view.x, 0.0, std::max(0.0, picture.width - view.width));
    view.y = std::clamp(view.y, 0.0, std::max(0.0, picture.height - view.height));
    return view;
}

bool Controller::isNear(const State& state, const View& aim) {
    const View& view = state.view;
    if (distance(view, aim) <= kSamePlace) return true;
    const bool cutsOne = std::any_of(state.faces.begin(), state.faces.end(), [&](const Kept& face) {
        const Rect& place = face.place;
        return place.x < view.x || place.x + place.width > view.x + view.width ||
               place.y < view.y || place.y + place.height > view.y + view.height;
    });
    // To all of the picture it goes the whole way.
    if (cutsOne || state.faces.empty()) return false;
    const double x =
        std::max(std::abs(aim.x - view.x), std::abs(aim.x + aim.width - view.x - view.width));
    const double y =
        std::max(std::abs(aim.y - view.y), std::abs(aim.y + aim.height - view.y - view.height));
    return x <= kDeadZone * view.width && y <= kDeadZone * view.height;
}

void Controller::approach(State& state, const View& aim, double seconds) {
    View& view = state.view;
    const double far = distance(view, aim);
    const double limit = kFastest * state.picture.width;
    const double way = std::min(limit, far / kReachedIn) * seconds;
    // All edges by the same share of their ways, so that the shape stays.
    const double share = far > 0 ? std::min(1.0, way / far) : 1;
    view.x += (aim.x - view.x) * share;
    view.y += (aim.y - view.y) * share;
    view.width += (aim.width - view.width) * share;
    view.height += (aim.height - view.height) * share;
    const double left = distance(view, aim);
    if (left <= kSamePlace) view = aim;  // no further than an edge is off by rounding
    // Where a face is found differs a little from frame to frame, which is no reason to go on.
    state.isMoving = left > (state.faces.empty() ? kSamePlace : kReached * view.width);
}

}  // namespace camera
