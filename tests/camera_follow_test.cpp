// Where faces are in the picture, and how the view goes after them.

#include <gtest/gtest.h>

#include <chrono>
#include <cmath>
#include <cstdlib>
#include <fstream>
#include <sstream>
#include <string>
#include <utility>
#include <vector>

#include "view/controller.h"
#include "view/faces.h"

namespace testing_support {

using camera::FrameSize;
using camera::Rect;
using namespace std::chrono_literals;

namespace {

constexpr FrameSize kPicture = {1280, 720};
constexpr Rect kAll = {0, 0, 1280, 720};
constexpr std::chrono::milliseconds kStep(40);

bool holds(const Rect& outer, const Rect& inner, double margin = 0) {
    const double x = margin * inner.width;
    const double y = margin * inner.height;
    return outer.x <= inner.x - x && outer.x + outer.width >= inner.x + inner.width + x &&
           outer.y <= inner.y - y && outer.y + outer.height >= inner.y + inner.height + y;
}

/** A stream whose frames show what was asked for; each view is held against what every one is. */
struct Stream {
    FrameSize size = {640, 480};
    camera::Controller controller{size};
    std::chrono::milliseconds now{7000};
    Rect view = {160, 0, 960, 720};

    Rect step(const std::vector<Rect>& faces, std::chrono::milliseconds step = kStep) {
        now += step;
        const Rect before = std::exchange(view, controller.next(faces, kPicture, view, now));
        EXPECT_TRUE(holds(kAll, view)) << view.x << ' ' << view.y << ' ' << view.width;
        EXPECT_LE(std::abs(view.width * size.height - view.height * size.width), 2 * size.width);
        EXPECT_GE(view.width, 1280 / 3);
        const double most = 0.3 * 1280 * std::chrono::duration<double>(step).count() + 1;
        EXPECT_LE(std::abs(view.x - before.x), most);
        EXPECT_LE(std::abs(view.y - before.y), most);
        EXPECT_LE(std::abs(view.x + view.width - before.x - before.width), most);
        EXPECT_LE(std::abs(view.y + view.height - before.y - before.height), most);
        return view;
    }
    Rect run(std::chrono::milliseconds duration, const std::vector<Rect>& faces) {
        for (const auto end = now + duration; now < end;)
            step(faces);
        return view;
    }
};

}  // namespace

TEST(CameraFollowTest, KeepsAMovingFaceInTheView) {
    for (const double size : {54, 120, 200}) {
        Stream stream;
        for (int frame = 0; frame < 500; ++frame) {
            const double second = frame * 0.04;
            const double x = 400 + 300 * std::sin(second * 0.15 * 1280 / 300);  // 15 % at most
            const Rect face = {int(x), 200, int(size), int(size)};
            stream.step({face});
            EXPECT_TRUE(second < 1 || holds(stream.view, face)) << size << ' ' << second;
        }
    }
}

TEST(CameraFollowTest, KeepsAFaceThatWasRecordedInTheView) {
    std::ifstream recorded(RECORDED_FACES);
    Stream stream;
    std::chrono::milliseconds before(0);
    int seen = 0;
    int kept = 0;
    for (std::string line; std::getline(recorded, line);) {
        std::istringstream numbers(line);
        int64_t time = 0;
        numbers >> time;
        const std::chrono::milliseconds now(time);
        std::vector<Rect> faces;
        for (Rect face; numbers >> face.x >> face.y >> face.width >> face.height;)
            faces.push_back(face);
        const bool isIn = faces.empty() || holds(stream.view, faces[0]);  // as it was looked at
        stream.step(faces, now - std::exchange(before, now));
        if (faces.empty() || now < 1s) continue;
        ++seen;
        kept += isIn ? 1 : 0;
        EXPECT_TRUE(now < 4s || now > 8s || stream.view.width < 600) << now.count();
    }
    EXPECT_GT(seen, 100);
    EXPECT_GE(kept * 100, seen * 95) << kept << " of " << seen;
}

TEST(CameraFollowTest, RestsInTheDeadZoneAndLeavesItToCutNoFace) {
    Stream stream;
    const Rect face = {300, 200, 250, 250};
    const Rect rest = stream.run(4s, {face});
    EXPECT_TRUE(holds(rest, face, 0.45));
    EXPECT_LE(rest.height, 2 * 250 + 10);
    const int far = rest.height / 10;
    EXPECT_EQ(stream.run(2s, {{300, 200 + far - 8, 250, 250}}), rest);
    EXPECT_NE(stream.run(2s, {{300, 200 + far + 8, 250, 250}}), rest);
    // Two small ones far from each other: a tenth of the view is more than their margin.
    const std::vector<Rect> wide = {{100, 300, 30, 30}, {900, 300, 30, 30}};
    stream.run(5s, wide);
    EXPECT_TRUE(holds(stream.run(2s, {{60, 300, 30, 30}, wide[1]}), {60, 300, 30, 30}, 0.1));
}

TEST(CameraFollowTest, KeepsAFaceThatIsMissedAndShowsAllWithoutOne) {
    Stream stream;
    const Rect here = {200, 300, 60, 60};
    const Rect there = {700, 300, 60, 60};
    EXPECT_EQ(stream.controller.next({}, kPicture, stream.view, stream.now), stream.view);
    const Rect both = stream.run(4s, {here, there});
    EXPECT_EQ(stream.run(480ms, {there}), both);
    EXPECT_NE(stream.run(200ms, {there}), both);
    EXPECT_TRUE(holds(stream.run(4s, {there}), there) && stream.view.width < 430);
    const Rect rest = stream.view;
    EXPECT_EQ(stream.run(1960ms, {}), rest);
    EXPECT_NE(stream.run(80ms, {}), rest);
    EXPECT_EQ(stream.run(4s, {}), (Rect{160, 0, 960, 720}));  // as the stream's shape shows it
}

TEST(CameraFollowTest, MapsFacesByTheViewAndTheTurnAndBack) {
    const struct {
        Rect face;
        Rect view;
        bool isTurned;
        Rect place;
    } cases[] = {
        {{64, 48, 64, 48}, {0, 0, 1280, 720}, false, {128, 72, 128, 72}},
        {{64, 48, 64, 48}, {100, 50, 320, 240}, false, {132, 74, 32, 24}},
        {{64, 48, 64, 48}, {100, 50, 320, 240}, true, {356, 242, 32, 24}},
        {{0, 0, 640, 480}, {100, 50, 320, 240}, true, {100, 50, 320, 240}},
        {{1, 1, 1, 1}, {0, 0, 320, 240}, false, {0, 0, 1, 1}},  // outward
    };
    for (const auto& c : cases) {
        EXPECT_EQ(camera::inPicture(c.face, {640, 480}, c.view, c.isTurned), c.place) << c.face.x;
        const Rect back = camera::inFrame(c.place, {640, 480}, c.view, c.isTurned);
        EXPECT_TRUE(holds(back, c.face) && back.width <= c.face.width + 2) << back.x;
    }
}

TEST(CameraFollowTest, CountsAFaceFromItsSecondDetectionInARow) {
    camera::SteadyFaces steady;
    const Rect face = {0, 0, 100, 100};
    EXPECT_EQ(steady.counting({face}), std::vector<bool>{false});
    const std::vector<Rect> next = {{0, 53, 100, 100}, {0, 54, 100, 100}, {200, 0, 10, 10}};
    EXPECT_EQ(steady.counting(next), (std::vector<bool>{true, false, false}));
    EXPECT_EQ(steady.counting({}), std::vector<bool>{});
    EXPECT_EQ(steady.counting({face}), std::vector<bool>{false});  // not in a row
}

}  // namespace testing_support
