// A camera in software: which frames its client gets and when, what it is told of them, and what
// happens when there are none.

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

namespace testing_support {

namespace {

using std::chrono::steady_clock;

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
        EXPECT_TRUE(eventually([&] { return source->status().dropped == 1; }));
    }

    static constexpr size_t kBytes = 64 * 48 * 3 / 2;
    std::fstream mFifo;
};

}  // namespace

TEST_F(CameraTest, PlaysEachFrameAndBeginsAgainOrNotAndAStillPictureWhoeverAsks) {
    // Takes over a second, after which a source that was lost would be tried anew.
    writeClip("clip", "50+50*N", 4, "mpeg4 -f mp4");
    camera::SourceOptions options = sourceOf("clip");
    ASSERT_EQ(play(options), "");
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

    writeClip("still.jpg", "120", 1, "mjpeg");
    options = sourceOf("still.jpg");
    options.fps.reset();
    ASSERT_EQ(play(options), "");
    EXPECT_TRUE(eventually([&] { return source->status().dropped >= 3; }));
    EXPECT_TRUE(source->status().rate == 25 && askFor() >= 118);
}

TEST_F(CameraTest, AnnouncesEachFrameWithItsViewBeforeItsResult) {
    // Of another size midway.
    writeClip("one", "100", 2, "mjpeg -f mjpeg", "128x64");
    writeClip("two", "100", 1, "mjpeg -f mjpeg", "32x80");
    std::ofstream(folder / "clip.mjpeg") << contentOf(folder / "one") << contentOf(folder / "two");
    ASSERT_EQ(play(sourceOf("clip.mjpeg")), "");
    askFor();
    session->setPTZControl({std::vector<Crop>{{32, 16, 64, 16}}, 64, 32, 0, 0, 0});
    std::unique_lock<std::mutex> inside(clientGate);
    ask();
    EXPECT_TRUE(eventually([&] { return deliveries.notified().size() == 4; }));
    session->sendCaptureResult(resultFor(requestFor(77, 1)));
    inside.unlock();
    EXPECT_EQ(deliveries.waitFor(3)[1].frameNumber, 77U) << "told after its result";
    ask();
    answer(3);
    const std::vector<FDNotifyMsg> told = deliveries.notified();
    ASSERT_EQ(told.size(), 9U);  // three for each frame
    EXPECT_TRUE(told[3].type == FDNotifyType::SHUTTER && told[3].frameNumber == 2);
    const auto now = steady_clock::now().time_since_epoch() / std::chrono::nanoseconds(1);
    EXPECT_LT(static_cast<uint64_t>(now) - told[3].value, 20'000'000'000);
    EXPECT_EQ(told[4].type, camera::kViewAnnounced);
    // 64, 32, 64 x 32 in the picture, grown to 4:3 and moved inside.
    EXPECT_EQ(told[4].value, 48ULL << 48 | 64ULL << 32 | 16 << 16 | 64);
    EXPECT_EQ(told[5].value, 64U << 16 | 128);
    EXPECT_EQ(told[8].value, 80U << 16 | 32);

    source->clientWent();
    ask();
    answer(4);  // 77 was one
    EXPECT_EQ(deliveries.notified().size(), 9U);
}

TEST_F(CameraTest, KeepsRequestsBeyondTheirSecondUntilThereIsAFrame) {
    playFifo();
    WallClock clock;
    for (int i = 0; i < 3; ++i)
        ask();
    EXPECT_TRUE(eventually([&] { return !session->isCaptureRequestReady(); }));
    clock.stepBy(5000000);
    drivePass();
    write(10);
    EXPECT_EQ(answer(0), 10);  // one for each frame, the oldest first
    write(20);
    EXPECT_EQ(answer(1), 20);

    configure(0, {64, 48});  // the third has a buffer that is no more
    ask();
    write(30);
    EXPECT_EQ(answer(2), kError);
    EXPECT_EQ(answer(3), 30);

    ask();
    EXPECT_TRUE(eventually([&] { return !session->isCaptureRequestReady(); }));
    source->clientWent();
    source->clientCame();
    ask();  // the next client's
    write(40);
    EXPECT_EQ(answer(4), kError);
    EXPECT_EQ(answer(5), 40);
    for (int i = 0; i < 33; ++i)
        ask();
    std::unique_lock<std::mutex> inside(clientGate);
    const size_t before = deliveries.notified().size();
    write(50);
    EXPECT_TRUE(eventually([&] { return deliveries.notified().size() == before + 1; }));
    EXPECT_TRUE(session->isCaptureRequestReady());  // one is left when the camera has looked again
    inside.unlock();
    EXPECT_EQ(answer(6), 50);
}

TEST_F(CameraTest, AnswersWithErrorsWhileThereIsNoSourceAndWaitsForNoneWhenItEnds) {
    // Takes three seconds: two until a stalled pipe is taken for one, one until the next try.
    camera::Camera silent(session, fifo(), [](const std::string&) {});  // nobody writes
    std::string problem;
    auto opening = std::async(std::launch::async, [&] { return silent.start(problem); });
    silent.giveUp();
    EXPECT_TRUE(!opening.get() && problem == "it was stopped") << problem;
    playFifo();
    write(2, 1000);  // stalls midway
    ask();
    EXPECT_EQ(answer(0), kError);
    EXPECT_EQ(askFor(), kError);
    const std::vector<FDNotifyMsg> told = deliveries.notified();
    EXPECT_TRUE(told.size() == 1 && told[0].type == FDNotifyType::ERROR &&
                told[0].frameNumber == 0);
    write(2, kBytes - 1000);  // and goes on where it was
    EXPECT_TRUE(eventually([&] { return source->status().dropped == 2; }));

    mFifo.close();
    EXPECT_TRUE(eventually([&] { return source->status().isBroken; }));
    EXPECT_EQ(askFor(), kError);
    EXPECT_EQ(saidSoFar(), "nothing came for 2 s\nit is over\n");
    open();
    write(3);
    EXPECT_TRUE(eventually([&] { return !source->status().isBroken; }));
    const auto begin = steady_clock::now();
    source->end();  // in a read that waits for the pipe
    EXPECT_LT(steady_clock::now() - begin, std::chrono::seconds(1));
}

}  // namespace testing_support
