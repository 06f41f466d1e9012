// Raw clips: which files are taken for one, from where, and what a comparison with one says.

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <csignal>
#include <filesystem>
#include <fstream>
#include <string>
#include <tuple>
#include <vector>

#include "comparison.h"
#include "frame.h"
#include "nv12_file.h"
#include "spool.h"
#include "support/run_shell.h"
#include "temporary_folder.h"

namespace testing_support {

using namespace std::string_literals;
using kit::kFrameBytes;
using kit::turnedBy180;
using tools::Nv12File;

namespace {

class ClipTest : public testing::Test {
protected:
    ClipTest() {
        write("clip.yuv", "", 2 * kFrameBytes);
        EXPECT_EQ(mkfifo(pipe.c_str(), 0600), 0);
    }

    /** So many bytes, of which the first are given. */
    void write(const std::string& name, const std::string& beginning, size_t size) const {
        std::string content = beginning;
        for (size_t index = content.size(); index < size; ++index)
            content += static_cast<char>(index % 251);
        std::ofstream(folder / name, std::ios::binary) << content;
    }

    const kit::TemporaryFolder folder;
    const std::string clip = folder / "clip.yuv";
    const std::string pipe = folder / "pipe";
    const std::string listening = "listening on " + folder / "socket";
    const std::string provider = PROVIDER_TOOL " --socket " + folder / "socket" + " --input ";
    std::string problem;
};

}  // namespace

TEST_F(ClipTest, RefusesWhatIsNoWholeNumberOfRawFrames) {
    // How it begins, its bytes, whether a part may be left out, and the problem if there is one.
    const std::vector<std::tuple<std::string, size_t, bool, std::string>> clips = {
        {"", kFrameBytes, false, ""},
        {"", kFrameBytes - 1, true, "its 1382399 bytes are less than a frame"},
        {"", kFrameBytes + 1, false, "leaves out the 1 at its end"},
        {"", kFrameBytes + 1, true, ""},
        {"", 0, true, "its 0 bytes are less"},
        {"\0\0\0\x20"s + "ftypisom", kFrameBytes, true, "seems to be an ISO media file"},
        {"\x1A\x45\xDF\xA3"s, kFrameBytes, true, "seems to be a Matroska file"},
        {"RIFF", kFrameBytes + 1, false, "seems to be a RIFF file"},
        {"YUV4MPEG2 W1280", kFrameBytes, true, "seems to be a YUV4MPEG2 file"},
        {"\x89PNG\r\n\x1A\n"s, 100, false, "seems to be a PNG picture"},
        {"\xFF\xD8\xFF\xE0"s, 100, false, "seems to be a JPEG picture"},
    };
    const std::string inShell = "ffmpeg -i '" + folder.path().string() +
                                "/it'\\''s raw' -f rawvideo -pix_fmt nv12 -s 1280x720 ";
    for (const auto& [beginning, size, partial, expected] : clips) {
        write("it's raw", beginning, size);
        problem.clear();
        EXPECT_EQ(Nv12File::open(folder / "it's raw", problem, partial).has_value(),
                  expected.empty());
        EXPECT_TRUE(has(problem, expected) && problem.empty() == expected.empty()) << problem;
        EXPECT_EQ(has(problem, inShell), has(problem, "seems")) << problem;
    }
}

TEST_F(ClipTest, TellsFramesThatAreOnlyTurned) {
    const kit::Frame first = Nv12File::open(clip, problem)->frame(0);
    kit::Frame other = first;
    other[1] ^= 1;
    const std::vector<std::tuple<bool, kit::Frame, std::string>> cases = {
        {false, first, ""},
        {true, turnedBy180(first), ""},
        {false, turnedBy180(first),
         "is none of the file's frames; turned by 180 degrees it would be right"},
        {true, first, "is none of the file's frames, turned; upright it would be right"},
        {false, other, "is none of the file's frames"},
    };
    for (const auto& [turned, frame, fault] : cases) {
        tools::Comparison comparison(*Nv12File::open(clip, problem), turned);
        tools::Answer answer = {};
        answer.frame = frame;
        EXPECT_EQ(comparison.faultOf(answer, {}), fault);
        if (!fault.empty()) continue;
        answer.frameNumber = 2;  // the file's first frame again
        answer.frame = turnedBy180(frame);
        EXPECT_TRUE(has(comparison.faultOf(answer, {}),
                        turned ? "; upright it" : "; turned by 180 degrees it"));
    }
}

TEST_F(ClipTest, IsPlayedAndComparedWithFromAPipe) {
    const std::string filling = "cat " + clip + " >" + pipe;
    const auto first = startShell(filling);
    const auto playing = startShell("exec " + provider + "- --partial <" + pipe);
    EXPECT_EQ(playing->nextLine(kPatience), listening);
    EXPECT_TRUE(has(*playing->nextLine(kPatience), "standard input is played as NV12"));
    const auto second = startShell(filling);
    expectRuns(CLIENT_TOOL " --frames 3 --socket " + folder / "socket",
               {{"--compare " + pipe, 0, ""}});

    for (const size_t most : {2 * kFrameBytes, 2 * kFrameBytes - 1}) {
        const host::UniqueFd file(open(clip.c_str(), O_RDONLY | O_CLOEXEC));
        EXPECT_EQ(tools::spool(file.get(), most, problem).isValid(), most == 2 * kFrameBytes);
    }
    EXPECT_EQ(problem, "it has more than 2764799 bytes");
}

TEST_F(ClipTest, EndsTheProviderWhenItIsCutShort) {
    const auto playing = startShell("exec " + provider + clip);
    EXPECT_EQ(playing->nextLine(kPatience), listening);
    std::filesystem::resize_file(clip, kFrameBytes);
    EXPECT_EQ(playing->rest(kPatience), clip +
                                            " is played as NV12 of 1280x720, 2 frames,\n"
                                            "which a file without a header cannot confirm\n"
                                            "fdstream-provider: " +
                                            clip + " has become shorter while it was played\n");
    EXPECT_EQ(playing->exitCode(kPatience), 1);
}

}  // namespace testing_support
