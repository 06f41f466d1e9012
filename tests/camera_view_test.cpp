// What of its picture the camera shows, where faces are in it, and how the view goes after them;
// when a frame is due; and webcams, made up: files in whose place the kernel's answers are the
// test's.

#include <gtest/gtest.h>
#include <linux/videodev2.h>
#include <sys/ioctl.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstdarg>
#include <cstdint>
#include <cstdlib>
#include <fstream>
#include <string>
#include <utility>
#include <vector>

#include "source/webcams.h"
#include "temporary_folder.h"
#include "view/controller.h"
#include "view/crop_rule.h"
#include "view/pace.h"

namespace testing_support {

using camera::FrameSize;
using camera::Rect;
using namespace std::chrono_literals;

namespace {

constexpr FrameSize kPicture = {1280, 720};
constexpr Rect kAll = {0, 0, 1280, 720};

bool holds(const Rect& outer, const Rect& inner, double margin = 0) {
    const double x = margin * inner.width;
    const double y = margin * inner.height;
    return outer.x <= inner.x - x && outer.x + outer.width >= inner.x + inner.width + x &&
           outer.y <= inner.y - y && outer.y + outer.height >= inner.y + inner.height + y;
}

/** A stream whose frames show what was asked for; each view is held against what every one is. */
struct Stream {
    camera::Controller controller{{640, 480}};
    std::chrono::milliseconds now{7000};
    Rect view = {160, 0, 960, 720};

    Rect step(const std::vector<Rect>& faces, std::chrono::milliseconds step = 40ms) {
        now += step;
        const Rect before = std::exchange(view, controller.next(faces, kPicture, view, now));
        EXPECT_TRUE(holds(kAll, view) && view.width >= 1280 / 3);
        EXPECT_LE(std::abs(view.width * 3 - view.height * 4), 8);
        const double most = 0.3 * 1280 * std::chrono::duration<double>(step).count() + 1;
        for (const int way : {view.x - before.x, view.x + view.width - before.x - before.width,
                              view.y - before.y, view.y + view.height - before.y - before.height})
            EXPECT_LE(std::abs(way), most);
        return view;
    }
    Rect run(std::chrono::milliseconds duration, const std::vector<Rect>& faces) {
        for (const auto end = now + duration; now < end;)
            step(faces);
        return view;
    }
};

/** By the first letter of the file: a webcam, one with ranges, or something else. */
bool answer(char kind, unsigned long request, void* argument) {
    if (request == VIDIOC_QUERYCAP) {
        auto& capability = *static_cast<v4l2_capability*>(argument);
        capability.card[0] = static_cast<uint8_t>(kind);
        capability.capabilities = V4L2_CAP_DEVICE_CAPS | V4L2_CAP_VIDEO_CAPTURE;
        capability.device_caps = kind == 'm' ? V4L2_CAP_META_CAPTURE : V4L2_CAP_VIDEO_CAPTURE;
        return true;
    }
    const bool hasRanges = kind == 'r';
    const uint32_t index = *static_cast<uint32_t*>(argument);  // with which all the others begin
    if (request == VIDIOC_ENUM_FMT) {
        auto& entry = *static_cast<v4l2_fmtdesc*>(argument);
        entry.pixelformat = index == 0 ? V4L2_PIX_FMT_YUYV : V4L2_PIX_FMT_SRGGB8;
    } else if (request == VIDIOC_ENUM_FRAMESIZES) {
        auto& entry = *static_cast<v4l2_frmsizeenum*>(argument);
        entry.type = hasRanges ? V4L2_FRMSIZE_TYPE_STEPWISE : V4L2_FRMSIZE_TYPE_DISCRETE;
        entry.discrete = {640U << index, 480};
        if (hasRanges) entry.stepwise = {32, 4096, 2, 32, 4096, 2};
    } else {
        auto& entry = *static_cast<v4l2_frmivalenum*>(argument);
        entry.type = V4L2_FRMIVAL_TYPE_DISCRETE;
        entry.discrete = {1, (entry.width == 640 ? 30U : 10U) >> index};
    }
    return index < (hasRanges ? 1 : 2);
}

}  // namespace

TEST(ViewTest, ShowsWhatIsAskedForAndNeverStretchesIt) {
    const auto shown = [](const Rect& wanted, FrameSize of = kPicture,
                          FrameSize stream = kPicture) {
        return camera::viewFor(wanted, of, kPicture, stream);
    };
    EXPECT_EQ(shown({0, 0, 50, 50}, {100, 200}), (Rect{0, 0, 640, 360}));  // two scales
    EXPECT_EQ(shown({600, 300, 160, 10}), (Rect{600, 260, 160, 90}));      // grown about its middle
    EXPECT_EQ(shown({-50, -50, 210, 140}), (Rect{0, 0, 160, 90}));         // clipped
    EXPECT_EQ(shown({101, 51, 160, 90}), (Rect{100, 50, 162, 92}));        // outward to the chroma
    // The other side is cut.
    EXPECT_EQ(shown({0, 0, 1280, 400}, kPicture, {100, 100}), (Rect{280, 0, 720, 720}));
    // Nothing left, or of no size.
    EXPECT_EQ(shown({5, 5, 10, -3}), kAll);
    EXPECT_EQ(shown({5, 5, INT32_MAX, INT32_MAX}, {0, 720}), kAll);
}

TEST(ViewTest, IsInsideThePictureOnTheGridAndOfTheStreamsShape) {
    for (int width = 1; width <= 70; width += 3) {
        for (int height = 1; height <= 70; height += 3) {
            for (int i = 0; i < 135; ++i) {
                const int from = -20 + i / 9 * 7;
                const int length = 1 + i % 9 * 11;
                const Rect view = camera::viewFor({from, from / 2, length, 90 - length}, {70, 70},
                                                  {width, height}, {160, 90});
                // An odd picture's last column or row is not alone.
                ASSERT_TRUE(width - view.x - view.width != 1 && height - view.y - view.height != 1);
                ASSERT_TRUE(holds({0, 0, width, height}, view) && view.x % 2 + view.y % 2 == 0 &&
                            view.width >= std::min(width, 16) &&
                            view.height >= std::min(height, 16) &&
                            (std::min(view.width, view.height) <= 17 ||
                             std::abs(view.width * 9 - view.height * 16) <= 100))
                    << width << 'x' << height << ' ' << from << ' ' << length;
            }
        }
    }
}

TEST(PaceTest, FollowsTheStampsAndNoLeap) {
    constexpr int64_t kMs = 1'000'000;
    camera::Pace pace;
    const auto due = [&](int64_t stamp, int64_t now = 1000) {
        return pace.dueOf(stamp * kMs, 40 * kMs, now * kMs) / kMs;
    };
    EXPECT_EQ(due(500), 1000);
    EXPECT_EQ(due(600), 1100);
    EXPECT_EQ(due(600), 1140);                // stands still
    EXPECT_EQ(due(9'000'000'000'000), 1180);  // leaps
    EXPECT_EQ(due(540, 1300), 1220);          // goes back, and is late, but a little
    EXPECT_EQ(due(580, 9000), 9000);          // does not catch up
    pace.beginAgain();
    EXPECT_EQ(due(900), 9040);
}

TEST(CameraFollowTest, KeepsAFaceThatWasRecordedInTheView) {
    std::ifstream recorded(TEST_DATA "/faces_in_picture.txt");
    Stream stream;
    int before = 0;
    int lost = 0;
    int kept = 0;
    Rect face;
    for (int now = 0; recorded >> now >> face.x >> face.y >> face.width >> face.height;) {
        const bool isThere = face.width > 0;
        if (isThere && now >= 1000) ++(holds(stream.view, face) ? kept : lost);  // as it was seen
        stream.step(std::vector<Rect>(isThere ? 1 : 0, face),
                    std::chrono::milliseconds(now - std::exchange(before, now)));
        EXPECT_TRUE(now < 4000 || now > 8000 || stream.view.width < 600) << now;
    }
    EXPECT_GT(kept, 100);
    EXPECT_GE(kept, 19 * lost) << lost;
}

TEST(CameraFollowTest, RestsInTheDeadZoneCutsNoFaceAndKeepsOneThatIsMissed) {
    Stream resting;
    const Rect face = {300, 200, 250, 250};
    const Rect rest = resting.run(4s, {face});
    EXPECT_TRUE(holds(rest, face, 0.45) && rest.height <= 2 * 250 + 10);
    const int far = rest.height / 10;
    EXPECT_EQ(resting.run(2s, {{300, 200 + far - 8, 250, 250}}), rest);
    EXPECT_NE(resting.run(2s, {{300, 200 + far + 8, 250, 250}}), rest);
    // Two small ones far from each other: a tenth of the view is more than their margin.
    const std::vector<Rect> wide = {{100, 300, 30, 30}, {900, 300, 30, 30}};
    resting.run(5s, wide);
    EXPECT_TRUE(holds(resting.run(2s, {{60, 300, 30, 30}, wide[1]}), {60, 300, 30, 30}, 0.1));

    Stream stream;
    const Rect here = {200, 300, 60, 60};
    const Rect there = {700, 300, 60, 60};
    const Rect small = {0, 0, 640, 480};  // another picture
    EXPECT_EQ(stream.controller.next({}, {640, 480}, small, stream.now), small);
    const Rect both = stream.run(4s, {here, there});
    EXPECT_EQ(stream.run(480ms, {there}), both);
    EXPECT_NE(stream.run(200ms, {there}), both);
    EXPECT_TRUE(holds(stream.run(4s, {there}), there) && stream.view.width < 430);
    const Rect last = stream.view;
    EXPECT_EQ(stream.run(1960ms, {}), last);
    EXPECT_NE(stream.run(80ms, {}), last);
    EXPECT_EQ(stream.run(4s, {}), (Rect{160, 0, 960, 720}));  // as the stream's shape shows it
    stream.step({here}, 5s);  // after a gap no further than in half a second
    EXPECT_GE(stream.view.x + stream.view.width, 1120 - 0.3 * 1280 / 2 - 1);
}

TEST(WebcamsTest, AreListedWithTheirModesAndTheLargestFastOneIsChosen) {
    const kit::TemporaryFolder folder;
    for (const std::string file : {"list video2", "range video10", "meta video3", "none vide1"})
        std::ofstream(folder / file.substr(file.find(' ') + 1)) << file;
    std::string listed;
    for (const camera::Webcam& webcam : camera::webcams(folder.path()))
        listed += inWords(webcam) + std::to_string(bestModeOf(webcam).size->width) + " is chosen\n";
    EXPECT_EQ(listed, folder / "video2" +
                          ": l\n"
                          "  640x480 yuyv422 at 30, 15 frames a second\n"
                          "  1280x480 yuyv422 at 10, 5 frames a second\n"
                          "  640x480 RGGB at 30, 15 frames a second\n"
                          "  1280x480 RGGB at 10, 5 frames a second\n640 is chosen\n" +
                          folder / "video10" +
                          ": r\n"
                          "  1920x1080 yuyv422 at 10 frames a second\n"
                          "  4096x4096 yuyv422 at 10 frames a second\n1920 is chosen\n");
}

}  // namespace testing_support

// A program's symbols win over the library's.
extern "C" int ioctl(int fd, unsigned long request, ...) noexcept {
    va_list rest;
    va_start(rest, request);
    void* const argument = va_arg(rest, void*);
    va_end(rest);
    if (_IOC_TYPE(request) != 'V')  // no webcam's
        return static_cast<int>(syscall(SYS_ioctl, fd, request, argument));
    char kind = 0;
    errno = EINVAL;
    return pread(fd, &kind, 1, 0) == 1 && testing_support::answer(kind, request, argument) ? 0 : -1;
}
