// A camera in software: which frames its client gets and when, what it is told of them, and what
// happens when there are none.

#include <gtest/gtest.h>
#include <unistd.h>

#include <chrono>
#include <future>
#include <string>
#include <thread>
#include <vector>

#include "support/camera_fixture.h"
#include "support/clip_writer.h"
#include "support/interposed.h"
#include "view/pace.h"

namespace testing_support {

namespace {

using camera::FrameSize;

constexpr FrameSize kSize = {64, 48};
constexpr double kUnpaced = 0;

std::vector<ClipFrame> greys(const std::vector<int>& lumas) {
    std::vector<ClipFrame> frames;
    frames.reserve(lumas.size());
    for (const int luma : lumas)
        frames.push_back({kSize, luma});
    return frames;
}

class CameraTest : public CameraFixture {
protected:
    /** Its first frame is there from the beginning. */
    std::string playFifo(RawFifo& fifo) {
        std::thread writer([&] {
            fifo.open();
            fifo.write(1);
        });
        const std::string problem = play(sourceOf("fifo", 1000));
        writer.join();
        return problem;
    }
};

}  // namespace

TEST_F(CameraTest, PlaysEachFrameAndBeginsAgain) {
    for (const char* const container : {"mp4", "matroska", "avi"}) {
        writeClip(folder / "clip", container, "mpeg4", greys({50, 100, 150, 200}));
        ASSERT_EQ(play(sourceOf("clip")), "") << container;
        for (const int luma : {50, 100, 150, 200, 50, 100, 150, 200, 50}) {
            const Answer got = askFor();
            EXPECT_TRUE(got.isFilled);
            EXPECT_NEAR(got.luma, luma, 3) << container << " answer " << got.number;
        }
        EXPECT_EQ(source->status().dropped, 0U);
    }
}

TEST_F(CameraTest, AnnouncesEachFrameWithItsView) {
    writeClip(folder / "clip", "matroska", "ffv1", {{{128, 64}, 50}, {{128, 64}, 60}});
    ASSERT_EQ(play(sourceOf("clip")), "");
    SceneControl ptz = {};
    ptz.crops.resize(1);
    ptz.crops[0] = {32, 16, 64, 16};
    ptz.frameWidth = 64;
    ptz.frameHeight = 32;
    askFor();
    lookForAnswersWhenTold();
    session->setPTZControl(ptz);
    const Answer got = askFor();
    ASSERT_EQ(got.told.size(), 3U);
    EXPECT_EQ(got.told[0].type, FDNotifyType::SHUTTER);
    for (const FDNotifyMsg& msg : got.told)
        EXPECT_EQ(msg.frameNumber, got.number);
    const auto age = std::chrono::steady_clock::now().time_since_epoch() -
                     std::chrono::nanoseconds(got.told[0].value);
    EXPECT_TRUE(age > age.zero() && age < std::chrono::seconds(20));
    EXPECT_EQ(got.told[1].type, camera::kViewAnnounced);
    // 64, 32, 64 x 32 in the picture, grown to 4:3 and moved inside.
    EXPECT_EQ(camera::viewIn(got.told[1]), (camera::Rect{64, 16, 64, 48}));
    EXPECT_EQ(camera::pictureIn(got.told[2]).size.width, 128);
    EXPECT_FALSE(camera::pictureIn(got.told[2]).isTurned);

    source->clientWent();
    EXPECT_TRUE(askFor().told.empty());
}

TEST_F(CameraTest, TakesAnotherSizeMidway) {
    writeClip(folder / "clip.mjpeg", "mjpeg", "mjpeg",
              {{{64, 48}, 100}, {{32, 80}, 150}, {{200, 40}, 200}});
    ASSERT_EQ(play(sourceOf("clip.mjpeg")), "");
    for (const FrameSize size : {FrameSize{64, 48}, FrameSize{32, 80}, FrameSize{200, 40}}) {
        const Answer got = askFor();
        ASSERT_EQ(got.told.size(), 3U);
        EXPECT_EQ(camera::pictureIn(got.told[2]).size.width, size.width);
        EXPECT_EQ(camera::pictureIn(got.told[2]).size.height, size.height);
    }
}

TEST_F(CameraTest, KeepsRequestsBeyondTheirSecondUntilThereIsAFrame) {
    RawFifo fifo(folder / "fifo");
    ASSERT_EQ(playFifo(fifo), "");
    EXPECT_TRUE(eventually([&] { return source->status().dropped == 1; }));
    WallClock clock;
    for (int i = 0; i < 3; ++i)
        ask();
    EXPECT_TRUE(eventually([&] { return !session->isCaptureRequestReady(); }));
    clock.stepBy(5000000);
    drivePass();
    fifo.write(10);
    EXPECT_EQ(answer(0).luma, 10);  // one for each frame, the oldest first
    fifo.write(20);
    EXPECT_EQ(answer(1).luma, 20);

    configureAnew();  // the third has a buffer that is no more
    ask();
    fifo.write(30);
    EXPECT_FALSE(answer(2).isFilled);
    EXPECT_TRUE(answer(3).isFilled);
    EXPECT_EQ(answer(3).luma, 30);

    ask();
    EXPECT_TRUE(eventually([&] { return !session->isCaptureRequestReady(); }));
    source->clientWent();
    EXPECT_FALSE(answer(4).isFilled);
    EXPECT_FALSE(source->status().isBroken);  // which would be another reason
    fifo.write(40);
    EXPECT_TRUE(eventually([&] { return source->status().dropped == 2; }));

    for (int i = 0; i < 32; ++i)
        ask();
    EXPECT_TRUE(eventually([&] { return !session->isCaptureRequestReady(); }));
    ask();  // one more waits with the session, however often the camera looks
    for (int i = 0; i < 20; ++i) {
        usleep(2000);
        EXPECT_TRUE(session->isCaptureRequestReady());
    }
}

TEST_F(CameraTest, AnswersWithErrorsWhileThereIsNoSource) {
    // Takes three seconds: two until a stalled pipe is taken for one, one until the next try.
    RawFifo fifo(folder / "fifo");
    ASSERT_EQ(playFifo(fifo), "");
    EXPECT_TRUE(eventually([&] { return source->status().dropped == 1; }));
    fifo.write(2, 1000);  // stalls midway
    ask();
    const Answer first = answer(0);
    EXPECT_FALSE(first.isFilled);
    ASSERT_EQ(first.told.size(), 1U);
    EXPECT_EQ(first.told[0].type, FDNotifyType::ERROR);
    EXPECT_EQ(first.told[0].frameNumber, 0U);
    EXPECT_TRUE(askFor().told.empty());
    EXPECT_EQ(saidSoFar(), "nothing came for 2 s\n");
    fifo.write(2, 64 * 48 * 3 / 2 - 1000);  // and goes on where it was
    EXPECT_TRUE(eventually([&] { return source->status().dropped == 2; }));

    fifo.close();
    EXPECT_TRUE(eventually([&] { return source->status().isBroken; }));
    EXPECT_FALSE(askFor().isFilled);
    EXPECT_EQ(saidSoFar(), "nothing came for 2 s\nit is over\n");
    fifo.open();
    fifo.write(3);
    EXPECT_TRUE(eventually([&] { return !source->status().isBroken; }));
}

TEST_F(CameraTest, EndsTheStreamOnceOnly) {
    // Takes over a second, after which a source that was lost would be tried anew.
    writeClip(folder / "clip", "mp4", "mpeg4", greys({50, 60}));
    camera::SourceOptions options = sourceOf("clip", kUnpaced);
    options.once = true;
    ASSERT_EQ(play(options), "");
    EXPECT_TRUE(askFor().isFilled);
    EXPECT_TRUE(askFor().isFilled);
    const auto begin = std::chrono::steady_clock::now();
    for (int i = 0; i < 30; ++i)
        EXPECT_FALSE(askFor().isFilled);
    EXPECT_GE(std::chrono::steady_clock::now() - begin, std::chrono::milliseconds(1100));
    EXPECT_EQ(saidSoFar(), "it is over\n");
}

TEST_F(CameraTest, PlaysOnWithoutAnybodyAndShowsAStillPicture) {
    writeClip(folder / "still.jpg", "image2pipe", "mjpeg", greys({120}));
    camera::SourceOptions options = sourceOf("still.jpg");
    options.fps.reset();
    ASSERT_EQ(play(options), "");
    EXPECT_TRUE(eventually([&] { return source->status().dropped >= 3; }));
    EXPECT_NEAR(askFor().luma, 120, 2);
    EXPECT_EQ(source->status().rate, 25);
}

TEST_F(CameraTest, GivesUpWhateverItWaitsFor) {
    RawFifo silent(folder / "fifo");
    make(sourceOf("fifo"));
    auto opening = std::async(std::launch::async, [&] { return start(); });
    source->giveUp();
    EXPECT_EQ(opening.get(), "it was stopped");

    ASSERT_EQ(playFifo(silent), "");
    ask();
    EXPECT_TRUE(eventually([&] { return !session->isCaptureRequestReady(); }));
    const auto begin = std::chrono::steady_clock::now();
    source->end();  // in a read that waits for the pipe
    EXPECT_LT(std::chrono::steady_clock::now() - begin, std::chrono::seconds(1));
    answer(0);
}

TEST(PaceTest, FollowsTheStampsAndNoLeap) {
    constexpr int64_t kMs = 1'000'000;
    camera::Pace pace;
    EXPECT_EQ(pace.dueOf(500 * kMs, 40 * kMs, 1000 * kMs), 1000 * kMs);
    EXPECT_EQ(pace.dueOf(600 * kMs, 40 * kMs, 1000 * kMs), 1100 * kMs);
    EXPECT_EQ(pace.dueOf(600 * kMs, 40 * kMs, 1000 * kMs), 1140 * kMs);  // stands still
    EXPECT_EQ(pace.dueOf(100 * kMs, 40 * kMs, 1000 * kMs), 1180 * kMs);  // goes back
    EXPECT_EQ(pace.dueOf(INT64_MAX, 40 * kMs, 1000 * kMs), 1220 * kMs);  // leaps
    EXPECT_EQ(pace.dueOf(INT64_MIN, 40 * kMs, 1000 * kMs), 1260 * kMs);
    pace.beginAgain();
    EXPECT_EQ(pace.dueOf(500 * kMs, 40 * kMs, 1000 * kMs), 1300 * kMs);
    EXPECT_EQ(pace.dueOf(540 * kMs, 40 * kMs, 1500 * kMs), 1340 * kMs);  // late, but a little
    EXPECT_EQ(pace.dueOf(580 * kMs, 40 * kMs, 9000 * kMs), 9000 * kMs);  // does not catch up
    camera::Pace fixed(10 * kMs);
    EXPECT_EQ(fixed.dueOf(500 * kMs, 40 * kMs, 1000 * kMs), 1000 * kMs);
    EXPECT_EQ(fixed.dueOf(600 * kMs, 40 * kMs, 1000 * kMs), 1010 * kMs);
}

}  // namespace testing_support
