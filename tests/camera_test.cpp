// A camera in software: which frames its client gets and when, what it is told of them, and what
// happens when there are none; then clients that die at any moment, and files that were corrupted,
// each in a way of its own. FDSTREAM_HOSTILE_FILES says how many of each kind.

#include <gtest/gtest.h>
#include <sys/resource.h>
#include <sys/stat.h>

#include <algorithm>
#include <chrono>
#include <csignal>
#include <cstdlib>
#include <ctime>
#include <filesystem>
#include <fstream>
#include <mutex>
#include <random>
#include <string>
#include <vector>

#include "host/channel.h"
#include "support/camera_fixture.h"
#include "support/interposed.h"
#include "view/announcements.h"

namespace testing_support {

namespace {

using std::chrono::steady_clock;
using vendor::zoru::zoruprovider::zoruprovider::V2_4::Crop;

/** Bytes changed, cut out, doubled or cut off: most of it near the beginning, where sizes are. */
std::string corrupted(std::string bytes, unsigned seed) {
    std::minstd_rand random(seed * 2654435761U + 1);
    const auto below = [&](size_t limit) { return random() / 7 % limit; };
    for (size_t left = 1 + below(12); left > 0 && bytes.size() > 64; --left) {
        const size_t most = below(3) == 0 ? std::min<size_t>(bytes.size(), 1024) : bytes.size();
        const size_t place = below(most);
        const size_t kind = below(8);
        if (kind == 0) bytes.erase(place, 1 + below(200));
        if (kind == 1) bytes.insert(place, bytes.substr(below(most), 1 + below(200)));
        if (kind == 2) bytes.resize(bytes.size() / 2 + below(bytes.size() / 2));
        if (kind == 3) bytes.replace(place, 4, std::string(4, below(2) == 0 ? '\xFF' : '\x7F'));
        if (kind > 3) bytes[place] = static_cast<char>(random() >> 8);
    }
    return bytes;
}

using CameraHostileTest = CameraFixture;
using CameraToolTest = CameraFixture;

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
    EXPECT_EQ(deliveries.waitFor(3)[1].result.frameNumber, 77U) << "told after its result";
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

    configureAnew();  // the third has a buffer that is no more
    ask();
    write(30);
    EXPECT_EQ(answer(2), kError);
    EXPECT_EQ(answer(3), 30);

    ask();
    EXPECT_TRUE(eventually([&] { return !session->isCaptureRequestReady(); }));
    source->clientWent();
    EXPECT_EQ(answer(4), kError);
    EXPECT_FALSE(source->status().isBroken);  // which would be another reason
    source->clientCame();
    for (int i = 0; i < 33; ++i)
        ask();
    std::unique_lock<std::mutex> inside(clientGate);
    const size_t before = deliveries.notified().size();
    write(50);
    EXPECT_TRUE(eventually([&] { return deliveries.notified().size() == before + 1; }));
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
    EXPECT_TRUE(eventually([&] { return source->status().dropped == 2; }));

    mFifo.close();
    EXPECT_TRUE(eventually([&] { return source->status().isBroken; }));
    EXPECT_EQ(askFor(), kError);
    EXPECT_EQ(saidSoFar(), "nothing came for 2 s\nit is over\n");
    open();
    write(3);
    EXPECT_TRUE(eventually([&] { return !source->status().isBroken; }));
}

TEST_F(CameraTest, GivesUpWaitingForAPipe) {
    camera::Camera silent(session, fifo(), [](const std::string&) {});  // nobody writes
    std::string problem;
    silent.giveUp();
    EXPECT_FALSE(silent.start(problem));
    EXPECT_EQ(problem, "it was stopped");
}

TEST_F(CameraHostileTest, HarmsNobodyInOneProcess) {
    // Takes a few seconds: each file is opened, and played for up to a second if it can be.
    const char* const files = getenv("FDSTREAM_HOSTILE_FILES");
    const int filesOfEachKind = files == nullptr ? 20 : std::stoi(files);
    for (const std::string encoder : {"mpeg4 -f mp4", "mjpeg -f matroska", "mpeg4 -f avi"}) {
        // Of a picture that changes, so that there is something to be coded.
        writeClip("whole", "40+15*N", 12, encoder, "96x80");
        for (int seed = 0; seed < filesOfEachKind; ++seed) {
            SCOPED_TRACE(encoder + " " + std::to_string(seed));
            std::ofstream(folder / "hostile", std::ios::binary)
                << corrupted(contentOf(folder / "whole"), static_cast<unsigned>(seed));
            camera::SourceOptions options = sourceOf("hostile", 1000);
            options.decodingThreads = 1;
            if (!play(options).empty()) continue;
            const std::clock_t end = std::clock() + CLOCKS_PER_SEC;  // of the processor's time
            // What breaks down gets errors at the frames' pace.
            for (int frame = 0; frame < 30 && std::clock() < end; ++frame)
                if (askFor() == kError) break;
            source.reset();
            configureAnew();
        }
        // After all of them a whole file plays.
        ASSERT_EQ(play(sourceOf("whole")), "");
        EXPECT_NEAR(askFor(), 40, 20);
    }
    rusage usage = {};
    getrusage(RUSAGE_SELF, &usage);
    EXPECT_LT(usage.ru_maxrss, 1 << 20) << "kilobytes";
}

TEST_F(CameraToolTest, SaysWhatCannotBePlayedAndEndsWhenARawClipIsCutShort) {
    std::ofstream(folder / "text.mp4") << "no video\n";
    std::ofstream(folder / "raw.yuv") << "no frame\n";
    expectRuns(
        "cd " + folder.path().string() + "; " PROVIDER_TOOL " --socket socket",
        {{"--input - <text.mp4", 2, "standard input cannot be played: it is no video"},
         {"--input raw.yuv", 2, "raw.yuv cannot be played: its 9 bytes are less than a frame"},
         {"--input /dev/video0 --camera 4x4@nan", 2, "--camera takes WxH[@RATE][:FORMAT]"}});

    const std::string clip = folder / "it's.yuv";
    const std::string socket = folder / "socket";
    std::ofstream(clip) << std::string(2 * kit::kFrameBytes, 'a');
    const auto playing =
        startShell("exec " PROVIDER_TOOL " --socket " + socket + " --input \"" + clip + "\"");
    EXPECT_EQ(playing->nextLine(kPatience), "listening on " + socket);
    expectRuns(
        "tr a b <\"" + clip + "\" | " CLIENT_TOOL " --frames 3 --compare - --socket " + socket,
        {{"", 1, "is none of the file's frames"}});
    std::filesystem::resize_file(clip, kit::kFrameBytes);
    EXPECT_TRUE(has(playing->rest(kPatience), " has become shorter while it was played\n"));
    EXPECT_EQ(playing->exitCode(kPatience), 1);
}

TEST_F(CameraToolTest, ServesTheNextClientAtFullRate) {
    // Takes a few seconds: clients are processes, and are killed while frames are on their way.
    const std::string socket = folder / "socket";
    const auto provider =
        startShell("exec " PROVIDER_TOOL
                   " --flipped --format lavfi --input testsrc2=s=320x240:r=50 --socket " +
                   socket);
    EXPECT_EQ(provider->nextLine(kPatience), "listening on " + socket);
    const std::string tool = "exec " CLIENT_TOOL " --size 160x120 --socket " + socket;
    for (int i = 0; i < 4; ++i) {
        const auto killed = startShell(tool + " --frames 0");
        EXPECT_NE(killed->nextLine(kPatience).value_or(""), "");  // some frames
        killed->signal(SIGKILL);
        expectRuns(tool, {{"--frames 25", 0, ""}});  // and leaves no result
    }
    // One that answers no notification does not keep it from ending.
    std::unique_lock<std::mutex> inside = holdClient();
    std::string problem;
    const auto silent = host::connect<IFDSession>(socket, problem);
    EXPECT_TRUE(silent->setCallback(callback).isOk());
    EXPECT_TRUE(silent->configure(configurationOf(0, 160, 120)).isOk());
    const host::Buffer frame = allocate(160, 120);
    EXPECT_TRUE(silent->processCaptureRequest(requestFor(1, 1, frame.handle())).isOk());
    EXPECT_TRUE(eventually([&] { return !deliveries.notified().empty(); }));
    provider->signal(SIGTERM);
    const std::string said = provider->rest(kPatience);
    EXPECT_EQ(provider->exitCode(kPatience), 0);
    inside.unlock();
    EXPECT_FALSE(has(said, "references")) << said;  // to the session, at its end
    EXPECT_FALSE(has(said, "no answer within")) << said;
    EXPECT_TRUE(has(said, " came\n") && has(said, " went\n")) << said;
}

}  // namespace testing_support
