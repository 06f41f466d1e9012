// What cannot be played, clients that die at any moment, and files that were corrupted, each in a
// way of its own. FDSTREAM_HOSTILE_FILES says how many of each kind.

#include <gtest/gtest.h>
#include <sys/resource.h>

#include <algorithm>
#include <csignal>
#include <cstdlib>
#include <ctime>
#include <filesystem>
#include <fstream>
#include <mutex>
#include <random>
#include <string>

#include "host/channel.h"
#include "support/camera_fixture.h"

namespace testing_support {

namespace {

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

}  // namespace

TEST_F(CameraHostileTest, HarmsNobodyInOneProcess) {
    // Takes a few seconds: each file is opened, and played for up to a second if it can be.
    const char* const files = getenv("FDSTREAM_HOSTILE_FILES");
    int played = 0;
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
            ++played;
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
    EXPECT_GT(played, 0);
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
