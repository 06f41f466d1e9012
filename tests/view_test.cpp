// What of its picture the camera shows, and how it says so.

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdint>
#include <cstdlib>
#include <string>

#include "view/announcements.h"
#include "view/crop_rule.h"

namespace testing_support {

using camera::FrameSize;
using camera::Rect;

namespace {

std::string inWords(const Rect& rect) {
    return std::to_string(rect.x) + ',' + std::to_string(rect.y) + ' ' +
           std::to_string(rect.width) + 'x' + std::to_string(rect.height);
}

}  // namespace

TEST(ViewTest, ShowsWhatIsAskedForAndNeverStretchesIt) {
    constexpr FrameSize kHd = {1280, 720};
    constexpr FrameSize kVga = {640, 480};
    const struct {
        Rect wanted;
        FrameSize frame, picture, stream;
        Rect view;
    } cases[] = {
        {{0, 0, 1280, 720}, kHd, kHd, kHd, {0, 0, 1280, 720}},
        {{0, 0, 1280, 720}, kHd, kHd, kVga, {160, 0, 960, 720}},  // its middle
        {{0, 0, 1280, 720}, kHd, {1920, 1080}, kHd, {0, 0, 1920, 1080}},
        {{0, 0, 640, 360}, kHd, {1920, 1080}, kHd, {0, 0, 960, 540}},  // in its own frame's size
        {{0, 0, 100, 100}, {100, 200}, {1000, 1000}, {100, 50}, {0, 0, 1000, 500}},  // two scales
        {{600, 300, 160, 10}, kHd, kHd, kHd, {600, 260, 160, 90}},  // grown about its middle
        {{600, 300, 16, 90}, kHd, kHd, kHd, {528, 300, 160, 90}},
        {{0, 300, 16, 90}, kHd, kHd, kHd, {0, 300, 160, 90}},  // and moved inside
        {{1270, 710, 160, 90}, kHd, kHd, kHd, {1262, 704, 18, 16}},
        {{-50, -50, 210, 140}, kHd, kHd, kHd, {0, 0, 160, 90}},  // clipped
        {{1280, 0, 10, 10}, kHd, kHd, kHd, {0, 0, 1280, 720}},   // nothing left
        {{5, 5, 0, 10}, kHd, kHd, kHd, {0, 0, 1280, 720}},
        {{5, 5, -3, 10}, kHd, kHd, kHd, {0, 0, 1280, 720}},
        {{5, 5, 10, 10}, {0, 720}, kHd, kHd, {0, 0, 1280, 720}},
        {{0, 0, 1280, 400}, kHd, kHd, {100, 100}, {280, 0, 720, 720}},  // the other side is cut
        {{101, 51, 160, 90}, kHd, kHd, kHd, {100, 50, 162, 92}},        // outward to the chroma
        {{100, 100, 2, 2}, kHd, kHd, kHd, {98, 100, 16, 16}},           // the least
        {{0, 0, 9, 7}, {9, 7}, {9, 7}, {9, 7}, {0, 0, 9, 7}},           // a smaller picture
        {{0, 0, 33, 21}, {33, 21}, {33, 21}, {33, 21}, {0, 0, 33, 21}},
        {{INT32_MIN, INT32_MIN, INT32_MAX, INT32_MAX}, kHd, kHd, kHd, {0, 0, 1280, 720}},
        {{INT32_MAX, INT32_MAX, INT32_MAX, INT32_MAX}, kHd, kHd, kHd, {0, 0, 1280, 720}},
        {{0, 0, INT32_MAX, INT32_MAX}, {1, 1}, kHd, kHd, {0, 0, 1280, 720}},
    };
    for (const auto& c : cases)
        EXPECT_EQ(inWords(camera::viewFor(c.wanted, c.frame, c.picture, c.stream)), inWords(c.view))
            << inWords(c.wanted);
}

TEST(ViewTest, IsInsideThePictureOnTheGridAndOfTheStreamsShape) {
    for (int width = 1; width <= 70; width += 3) {
        for (int height = 1; height <= 70; height += 3) {
            for (int from = -20; from < 80; from += 7) {
                for (int length = 1; length < 90; length += 11) {
                    const Rect view = camera::viewFor({from, from / 2, length, 90 - length},
                                                      {70, 70}, {width, height}, {160, 90});
                    ASSERT_TRUE(view.x >= 0 && view.x % 2 == 0 && view.x + view.width <= width);
                    ASSERT_TRUE(view.y >= 0 && view.y % 2 == 0 && view.y + view.height <= height);
                    ASSERT_TRUE(view.width >= std::min(width, 16)) << inWords(view);
                    ASSERT_TRUE(view.height >= std::min(height, 16)) << inWords(view);
                    const bool isLeast = view.width <= 17 || view.height <= 17;
                    ASSERT_TRUE(isLeast || std::abs(view.width * 9 - view.height * 16) <= 4 * 25)
                        << inWords(view) << " of " << width << "x" << height;
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

}  // namespace testing_support
