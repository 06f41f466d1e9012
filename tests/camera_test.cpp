// A camera in software: which frames its client gets and when, what it is told of them, and what
// happens when there are none.

#include <gtest/gtest.h>
#include <sys/stat.h>

#include <chrono>
#include <fstream>
#include <future>
#include <mutex>
#include <string>
#include <vector>

#include "support/camera_fixture.h"
#include "support/interposed.h"
#include "view/announcements.h"
#include "view/pace.h"

namespace testing_support {

namespace {

using std::chrono::steady_clock;
using vendor::zoru::zoruprovider::zoruprovider::V2_4::Crop;

/** With a FIFO for raw pictures, each of one grey. */
class CameraTest : public CameraFixture {
protected:
    CameraTest() {
        holdClient().unlock();
        EXPECT_EQ(mkfifo((folder / "fifo").c_str(), 0600), 0);
    }

    camera::SourceOptions fifo() const {
        camera::SourceOptions options = sourceOf("fifo", 1000);
        options.format = "nv12";
        options.size = {64, 48};
        return options;
    }
    void write(int luma, size_t bytes = kBytes) {
        mFifo << std::string(bytes, static_cast<char>(luma)) << std::flush;
        EXPECT_TRUE(mFifo.good());
    }
    /** For reading, too, so that it does not wait for the camera. */
    void open() { mFifo.open(folder / "fifo", std::ios::in | std::ios::out); }
    /** Its first picture is dropped. */
    void playFifo() {
        open();
        write(1);
        ASSERT_EQ(play(fifo()), "");
        waitForDropped(1);
    }
    void waitForDropped(uint64_t frames) const {
        EXPECT_TRUE(eventually([&] { return source->status().dropped == frames; }));
    }
    void waitUntilAllAreTaken() const {
        EXPECT_TRUE(eventually([&] { return !session->isCaptureRequestReady(); }));
    }
    /** Waits until the client, which is held, is called. */
    void waitUntilTold(size_t messages) const {
        EXPECT_TRUE(eventually([&] { return deliveries.notified().size() == messages; }));
    }

    static constexpr size_t kBytes = 64 * 48 * 3 / 2;
    std::fstream mFifo;
};

}  // namespace

TEST_F(CameraTest, PlaysEachFrameAndBeginsAgainOrNot) {
    // Takes over a second, after which a source that was lost would be tried anew.
    writeClip("clip", "50+50*N", 4, "mpeg4 -f mp4");
    camera::SourceOptions options = sourceOf("clip");
    ASSERT_EQ(play(options), "");
    EXPECT_EQ(source->description(), "64x48 at 25 frames a second, mpeg4");
    for (const int luma : {50, 100, 150, 200, 50, 100, 150, 200, 50})
        EXPECT_NEAR(askFor(), luma, 3);
    EXPECT_EQ(source->status().dropped, 0U);

    options.once = true;
    ASSERT_EQ(play(options), "");
    for (const int luma : {50, 100, 150, 200})
        EXPECT_NEAR(askFor(), luma, 3);
    const auto begin = steady_clock::now();
    for (int i = 0; i < 30; ++i)
        EXPECT_EQ(askFor(), kError);
    EXPECT_GE(steady_clock::now() - begin, std::chrono::milliseconds(1100));
    EXPECT_EQ(saidSoFar(), "it is over\n");
}

TEST_F(CameraTest, AnnouncesEachFrameWithItsViewBeforeItsResult) {
    // Of another size midway.
    writeClip("one", "100", 2, "mjpeg -f mjpeg", "128x64");
    writeClip("two", "100", 1, "mjpeg -f mjpeg", "32x80");
    std::ofstream(folder / "clip") << contentOf(folder / "one") << contentOf(folder / "two");
    camera::SourceOptions options = sourceOf("clip");
    options.format = "mjpeg";
    ASSERT_EQ(play(options), "");
    const SceneControl ptz = {std::vector<Crop>{{32, 16, 64, 16}}, 64, 32, 0, 0, 0};
    askFor();
    session->setPTZControl(ptz);
    std::unique_lock<std::mutex> inside(clientGate);
    ask();
    waitUntilTold(4);
    session->sendCaptureResult(resultFor(requestFor(77, 1)));
    inside.unlock();
    EXPECT_EQ(deliveries.waitFor(3)[1].result.frameNumber, 77U) << "told after its result";
    ask();
    answer(3);
    const std::vector<FDNotifyMsg> told = deliveries.notified();
    ASSERT_EQ(told.size(), 9U);  // three for each frame
    EXPECT_EQ(told[3].type, FDNotifyType::SHUTTER);
    for (size_t i = 0; i < 9; ++i)
        EXPECT_EQ(told[i].frameNumber, i / 3 + 1);
    const auto age =
        steady_clock::now().time_since_epoch() - std::chrono::nanoseconds(told[3].value);
    EXPECT_TRUE(age > age.zero() && age < std::chrono::seconds(20));
    EXPECT_EQ(told[4].type, camera::kViewAnnounced);
    // 64, 32, 64 x 32 in the picture, grown to 4:3 and moved inside.
    EXPECT_EQ(camera::viewIn(told[4]), (camera::Rect{64, 16, 64, 48}));
    EXPECT_EQ(camera::pictureIn(told[5]).size.width, 128);
    EXPECT_EQ(camera::pictureIn(told[8]).size.height, 80);

    source->clientWent();
    ask();
    answer(4);
    EXPECT_EQ(deliveries.notified().size(), 9U);
}

TEST_F(CameraTest, KeepsRequestsBeyondTheirSecondUntilThereIsAFrame) {
    playFifo();
    WallClock clock;
    for (int i = 0; i < 3; ++i)
        ask();
    waitUntilAllAreTaken();
    clock.stepBy(5000000);
    drivePass();
    write(10);
    EXPECT_EQ(answer(0), 10);  // one for each frame, the oldest first
    write(20);
    EXPECT_EQ(answer(1), 20);

    configureAnew();  // the third has a buffer that is no more
    ask();
    write(30);
    EXPECT_EQ(answer(2), kError);
    EXPECT_EQ(answer(3), 30);

    ask();
    waitUntilAllAreTaken();
    source->clientWent();
    EXPECT_EQ(answer(4), kError);
    EXPECT_FALSE(source->status().isBroken);  // which would be another reason
    write(40);
    waitForDropped(2);

    source->clientCame();
    for (int i = 0; i < 33; ++i)
        ask();
    std::unique_lock<std::mutex> inside(clientGate);
    const size_t before = deliveries.notified().size();
    write(50);
    waitUntilTold(before + 1);
    EXPECT_TRUE(session->isCaptureRequestReady());  // one is left when the camera has looked again
    inside.unlock();
    EXPECT_EQ(answer(5), 50);
}

TEST_F(CameraTest, AnswersWithErrorsWhileThereIsNoSource) {
    // Takes three seconds: two until a stalled pipe is taken for one, one until the next try.
    playFifo();
    write(2, 1000);  // stalls midway
    ask();
    EXPECT_EQ(answer(0), kError);
    EXPECT_EQ(askFor(), kError);
    ASSERT_EQ(deliveries.notified().size(), 1U);
    EXPECT_EQ(deliveries.notified()[0].type, FDNotifyType::ERROR);
    EXPECT_EQ(deliveries.notified()[0].frameNumber, 0U);
    EXPECT_EQ(saidSoFar(), "nothing came for 2 s\n");
    write(2, kBytes - 1000);  // and goes on where it was
    waitForDropped(2);

    mFifo.close();
    EXPECT_TRUE(eventually([&] { return source->status().isBroken; }));
    EXPECT_EQ(askFor(), kError);
    EXPECT_EQ(saidSoFar(), "nothing came for 2 s\nit is over\n");
    open();
    write(3);
    EXPECT_TRUE(eventually([&] { return !source->status().isBroken; }));
}

TEST_F(CameraTest, PlaysOnWithoutAnybodyAndShowsAStillPicture) {
    writeClip("still.jpg", "120", 1, "mjpeg");
    camera::SourceOptions options = sourceOf("still.jpg");
    options.fps.reset();
    ASSERT_EQ(play(options), "");
    EXPECT_TRUE(eventually([&] { return source->status().dropped >= 3; }));
    EXPECT_NEAR(askFor(), 120, 2);
    EXPECT_EQ(source->status().rate, 25);
}

TEST_F(CameraTest, GivesUpWhateverItWaitsFor) {
    camera::Camera silent(session, fifo(), [](const std::string&) {});  // nobody writes
    std::string problem;
    auto opening = std::async(std::launch::async, [&] { return silent.start(problem); });
    silent.giveUp();
    EXPECT_FALSE(opening.get());
    EXPECT_EQ(problem, "it was stopped");

    playFifo();
    ask();
    waitUntilAllAreTaken();
    const auto begin = steady_clock::now();
    source->end();  // in a read that waits for the pipe
    EXPECT_LT(steady_clock::now() - begin, std::chrono::seconds(1));
    answer(0);
}

TEST(PaceTest, FollowsTheStampsAndNoLeap) {
    constexpr int64_t kMs = 1'000'000;
    camera::Pace pace;
    EXPECT_EQ(pace.dueOf(500 * kMs, 40 * kMs, 1000 * kMs), 1000 * kMs);
    EXPECT_EQ(pace.dueOf(600 * kMs, 40 * kMs, 1000 * kMs), 1100 * kMs);
    EXPECT_EQ(pace.dueOf(600 * kMs, 40 * kMs, 1000 * kMs), 1140 * kMs);  // stands still
    EXPECT_EQ(pace.dueOf(INT64_MAX, 40 * kMs, 1000 * kMs), 1180 * kMs);  // leaps
    EXPECT_EQ(pace.dueOf(INT64_MIN, 40 * kMs, 1000 * kMs), 1220 * kMs);
    pace.beginAgain();
    EXPECT_EQ(pace.dueOf(500 * kMs, 40 * kMs, 1000 * kMs), 1260 * kMs);
    EXPECT_EQ(pace.dueOf(540 * kMs, 40 * kMs, 1500 * kMs), 1300 * kMs);  // late, but a little
    EXPECT_EQ(pace.dueOf(580 * kMs, 40 * kMs, 9000 * kMs), 9000 * kMs);  // does not catch up
    camera::Pace fixed(10 * kMs);
    EXPECT_EQ(fixed.dueOf(500 * kMs, 40 * kMs, 1000 * kMs), 1000 * kMs);
    EXPECT_EQ(fixed.dueOf(600 * kMs, 40 * kMs, 1000 * kMs), 1010 * kMs);
}

}  // namespace testing_support
