// The provider program with a camera: what it refuses, and clients that die at any moment.

#include <gtest/gtest.h>
#include <unistd.h>

#include <csignal>
#include <fstream>
#include <string>

#include "support/run_shell.h"
#include "temporary_folder.h"

namespace testing_support {

TEST(CameraToolTest, SaysWhatCannotBePlayed) {
    const kit::TemporaryFolder folder;
    std::ofstream(folder / "text.mp4") << "no video\n";
    std::ofstream(folder / "raw.yuv") << "no frame\n";
    const struct {
        const char* arguments;
        const char* sentence;
    } cases[] = {
        {"--input nix.mp4", "nix.mp4 cannot be played: No such file or directory"},
        {"--input .", ". cannot be played: Is a directory"},
        {"--input text.mp4", "text.mp4 cannot be played: it is no video that FFmpeg knows"},
        {"--input - <text.mp4", "standard input cannot be played: it is no video"},
        {"--input text.mp4 --format nix", "FFmpeg has no format \"nix\" here"},
        {"--input sine --format lavfi", "it has no pictures"},
        {"--input raw.yuv", "raw.yuv cannot be played: its 9 bytes are less than a frame"},
        {"--input raw.yuv --fps 3", "are for what is no raw clip"},
        {"--once", "are for what is no raw clip"},
        {"--input raw.yuv --format nv12", "needs --size"},
        {"--input text.mp4 --size 4x4", "--size is for --format nv12"},
        {"--input text.mp4 --camera 4x4", "--camera is for a webcam"},
        {"--input /dev/video0 --camera 4", "--camera takes WxH[@RATE][:FORMAT]"},
    };
    for (const auto& c : cases) {
        const Output output = runShell("cd " + folder.path().string() + "; " +
                                       PROVIDER_TOOL " --socket socket " + c.arguments);
        EXPECT_EQ(output.exitCode, 2) << c.arguments;
        EXPECT_NE(output.text.find(c.sentence), std::string::npos) << output.text;
    }
}

TEST(CameraToolTest, ServesTheNextClientAtFullRate) {
    // Takes a few seconds: clients are processes, and are killed while frames are on their way.
    const kit::TemporaryFolder folder;
    const std::string socket = folder / "socket";
    const auto provider = startShell("exec " PROVIDER_TOOL
                                     " --flipped --format lavfi --input "
                                     "testsrc2=s=320x240:r=50 --socket " +
                                     socket);
    EXPECT_EQ(provider->nextLine(kPatience), "listening on " + socket);
    const std::string client = "exec " CLIENT_TOOL " --size 160x120 --socket " + socket;
    for (int i = 0; i < 4; ++i) {
        const Output next = runShell(client + " --frames 25");
        EXPECT_EQ(next.exitCode, 0) << next.text;
        const auto killed = startShell(client + " --frames 0");
        for (std::string line; line.find("came") == std::string::npos;)
            line = provider->nextLine(kPatience).value_or("came?");
        EXPECT_NE(killed->nextLine(kPatience).value_or(""), "");  // some frames
        killed->signal(SIGKILL);
    }
    // One that answers no notification does not keep it from ending.
    const auto stopped = startShell(client + " --frames 0");
    EXPECT_NE(stopped->nextLine(kPatience).value_or(""), "");
    stopped->signal(SIGSTOP);
    usleep(100'000);  // until there is one
    provider->signal(SIGTERM);
    const std::string said = provider->rest(kPatience);
    EXPECT_EQ(provider->exitCode(kPatience), 0);
    stopped->signal(SIGKILL);
    EXPECT_EQ(said.find("references"), std::string::npos) << said;  // to the session, at its end
    size_t lines = 0;
    for (size_t at = said.find("notify"); at != std::string::npos;
         at = said.find("notify", at + 1)) {
        const std::string line = said.substr(at, said.find('\n', at) - at);
        EXPECT_EQ(line.find("no answer within"), std::string::npos) << line;
        ++lines;
    }
    EXPECT_LE(lines, 5 * 3U) << said;  // the announcements that were under way
}

}  // namespace testing_support
