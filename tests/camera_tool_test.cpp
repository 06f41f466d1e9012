// The provider program with a camera: what it refuses, and clients that die at any moment.

#include <gtest/gtest.h>

#include <atomic>
#include <csignal>
#include <fstream>
#include <future>
#include <iterator>
#include <regex>
#include <string>

#include "host/channel.h"
#include "support/run_shell.h"
#include "support/session_fixture.h"
#include "temporary_folder.h"

namespace testing_support {

namespace {
using CameraToolTest = SessionFixture;
}  // namespace

TEST_F(CameraToolTest, SaysWhatCannotBePlayed) {
    const kit::TemporaryFolder folder;
    std::ofstream(folder / "text.mp4") << "no video\n";
    std::ofstream(folder / "raw.yuv") << "no frame\n";
    expectRuns(
        "cd " + folder.path().string() + "; " PROVIDER_TOOL " --socket socket",
        {{"--input nix.mp4", 2, "nix.mp4 cannot be played: No such file or directory"},
         {"--input .", 2, ". cannot be played: Is a directory"},
         {"--input text.mp4", 2, "text.mp4 cannot be played: it is no video that FFmpeg knows"},
         {"--input - <text.mp4", 2, "standard input cannot be played: it is no video"},
         {"--input text.mp4 --format nix", 2, "FFmpeg has no format \"nix\" here"},
         {"--input sine --format lavfi", 2, "it has no pictures"},
         {"--input raw.yuv", 2, "raw.yuv cannot be played: its 9 bytes are less than a frame"},
         {"--input raw.yuv --fps 3", 2, "are for what is no raw clip"},
         {"--once", 2, "are for what is no raw clip"},
         {"--input raw.yuv --format nv12", 2, "needs --size"},
         {"--input text.mp4 --size 4x4", 2, "--size is for --format nv12"},
         {"--input text.mp4 --camera 4x4", 2, "--camera is for a webcam"},
         {"--input /dev/video0 --camera 4", 2, "--camera takes WxH[@RATE][:FORMAT]"}});
}

TEST_F(CameraToolTest, ServesTheNextClientAtFullRate) {
    // Takes a few seconds: clients are processes, and are killed while frames are on their way.
    const kit::TemporaryFolder folder;
    const std::string socket = folder / "socket";
    const auto provider =
        startShell("exec " PROVIDER_TOOL
                   " --flipped --format lavfi --input testsrc2=s=320x240:r=50 --socket " +
                   socket);
    EXPECT_EQ(provider->nextLine(kPatience), "listening on " + socket);
    const std::string tool = "exec " CLIENT_TOOL " --size 160x120 --socket " + socket;
    for (int i = 0; i < 4; ++i) {
        const Output next = runShell(tool + " --frames 25");
        EXPECT_EQ(next.exitCode, 0) << next.text;
        const auto killed = startShell(tool + " --frames 0");
        EXPECT_NE(killed->nextLine(kPatience).value_or(""), "");  // some frames
        killed->signal(SIGKILL);
    }
    // One that answers no notification does not keep it from ending.
    std::atomic<bool> isTold{false};
    std::promise<void> ended;
    callback->during = [&isTold, end = ended.get_future().share()] {
        isTold = true;
        end.wait();
    };
    std::string problem;
    const auto silent = host::connect<IFDSession>(socket, problem);
    EXPECT_TRUE(silent->setCallback(callback).isOk());
    EXPECT_TRUE(silent->configure(configurationOf(0, 160, 120)).isOk());
    const host::Buffer frame = allocate(160, 120);
    EXPECT_TRUE(silent->processCaptureRequest(requestFor(1, 1, frame.handle())).isOk());
    EXPECT_TRUE(eventually([&] { return isTold.load(); }));
    provider->signal(SIGTERM);
    const std::string said = provider->rest(kPatience);
    EXPECT_EQ(provider->exitCode(kPatience), 0);
    ended.set_value();
    EXPECT_FALSE(has(said, "references")) << said;  // to the session, at its end
    EXPECT_FALSE(matches(said, "notify[^\n]*no answer within")) << said;
    const std::regex failed("notify");
    // The announcements that were under way, and no more.
    EXPECT_LE(std::distance(std::sregex_iterator(said.begin(), said.end(), failed), {}), 5 * 3);
}

}  // namespace testing_support
