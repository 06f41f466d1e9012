// What of its picture the camera shows and how it says so, where faces are in it, and how the view
// goes after them.

#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>
#include <cmath>
#include <cstdint>
#include <cstdlib>
#include <fstream>
#include <sstream>
#include <string>
#include <utility>
#include <vector>

#include "view/announcements.h"
#include "view/controller.h"
#include "view/crop_rule.h"
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

TEST(ViewTest, ShowsWhatIsAskedForAndNeverStretchesIt) {
    constexpr FrameSize kHd = {1280, 720};
    constexpr FrameSize kVga = {640, 480};
    const struct {
        Rect wanted;
        FrameSize frame, picture, stream;
        Rect view;
    } cases[] = {
        {{0, 0, 1280, 720}, kHd, kHd, kVga, {160, 0, 960, 720}},  // its middle
        {{0, 0, 1280, 720}, kHd, {1920, 1080}, kHd, {0, 0, 1920, 1080}},
        {{0, 0, 640, 360}, kHd, {1920, 1080}, kHd, {0, 0, 960, 540}},  // in its own frame's size
        {{0, 0, 100, 100}, {100, 200}, {1000, 1000}, {100, 50}, {0, 0, 1000, 500}},  // two scales
        {{600, 300, 160, 10}, kHd, kHd, kHd, {600, 260, 160, 90}},  // grown about its middle
        {{0, 300, 16, 90}, kHd, kHd, kHd, {0, 300, 160, 90}},       // and moved inside
        {{1270, 710, 160, 90}, kHd, kHd, kHd, {1262, 704, 18, 16}},
        {{-50, -50, 210, 140}, kHd, kHd, kHd, {0, 0, 160, 90}},  // clipped
        {{1280, 0, 10, 10}, kHd, kHd, kHd, {0, 0, 1280, 720}},   // nothing left
        {{5, 5, 0, 10}, kHd, kHd, kHd, {0, 0, 1280, 720}},
        {{5, 5, 10, -3}, kHd, kHd, kHd, {0, 0, 1280, 720}},
        {{5, 5, 10, 10}, {0, 720}, kHd, kHd, {0, 0, 1280, 720}},
        {{0, 0, 1280, 400}, kHd, kHd, {100, 100}, {280, 0, 720, 720}},  // the other side is cut
        {{101, 51, 160, 90}, kHd, kHd, kHd, {100, 50, 162, 92}},        // outward to the chroma
        {{100, 100, 2, 2}, kHd, kHd, kHd, {98, 100, 16, 16}},           // the least
        {{0, 0, 9, 7}, {9, 7}, {9, 7}, {9, 7}, {0, 0, 9, 7}},           // a smaller picture
        {{INT32_MIN, INT32_MIN, INT32_MAX, INT32_MAX}, kHd, kHd, kHd, {0, 0, 1280, 720}},
        {{0, 0, INT32_MAX, INT32_MAX}, {1, 1}, kHd, kHd, {0, 0, 1280, 720}},
    };
    for (const auto& c : cases)
        EXPECT_EQ(camera::viewFor(c.wanted, c.frame, c.picture, c.stream), c.view) << &c - cases;
}

TEST(ViewTest, IsInsideThePictureOnTheGridAndOfTheStreamsShape) {
    for (int width = 1; width <= 70; width += 3) {
        for (int height = 1; height <= 70; height += 3) {
            for (int from = -20; from < 80; from += 7) {
                for (int length = 1; length < 90; length += 11) {
                    const Rect view = camera::viewFor({from, from / 2, length, 90 - length},
                                                      {70, 70}, {width, height}, {160, 90});
                    const bool isLeast = view.width <= 17 || view.height <= 17;
                    // An odd picture's last column or row is not alone.
                    ASSERT_NE(width - view.x - view.width, 1);
                    ASSERT_NE(height - view.y - view.height, 1);
                    ASSERT_TRUE(holds({0, 0, width, height}, view) &&
                                view.x % 2 + view.y % 2 == 0 && view.width >= std::min(width, 16) &&
                                view.height >= std::min(height, 16) &&
                                (isLeast || std::abs(view.width * 9 - view.height * 16) <= 100))
                        << width << 'x' << height << ' ' << from << ' ' << length;
                }
            }
        }
    }
}

TEST(ViewTest, IsAnnouncedWithItsPicture) {
    const auto view = camera::viewOf(7, {65535, 1, 640, 480});
    EXPECT_EQ(view.frameNumber, 7U);
    EXPECT_EQ(view.value, 480ULL << 48 | 640ULL << 32 | 1ULL << 16 | 65535);
    EXPECT_EQ(camera::viewIn(view), (Rect{65535, 1, 640, 480}));
    const auto picture = camera::pictureOf(8, {{16384, 9}, true});
    EXPECT_EQ(picture.value, 1ULL << 32 | 9ULL << 16 | 16384);
    EXPECT_EQ(camera::pictureIn(picture).size.width, 16384);
    EXPECT_TRUE(camera::pictureIn(picture).isTurned);
}

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
    const Rect small = {0, 0, 640, 480};  // another picture
    EXPECT_EQ(stream.controller.next({}, {640, 480}, small, stream.now), small);
    EXPECT_EQ(stream.controller.next({}, kPicture, stream.view, stream.now), stream.view);
    const Rect both = stream.run(4s, {here, there});
    EXPECT_EQ(stream.run(480ms, {there}), both);
    EXPECT_NE(stream.run(200ms, {there}), both);
    EXPECT_TRUE(holds(stream.run(4s, {there}), there) && stream.view.width < 430);
    const Rect rest = stream.view;
    EXPECT_EQ(stream.run(1960ms, {}), rest);
    EXPECT_NE(stream.run(80ms, {}), rest);
    EXPECT_EQ(stream.run(4s, {}), (Rect{160, 0, 960, 720}));  // as the stream's shape shows it
    stream.step({here}, 5s);  // after a gap no further than in half a second
    EXPECT_GE(stream.view.x + stream.view.width, 1120 - 0.3 * 1280 / 2 - 1);
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
