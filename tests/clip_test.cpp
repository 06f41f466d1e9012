// Raw clips: which files are taken for one, from where, and what a comparison with one says.

#include <gtest/gtest.h>
#include <sys/stat.h>

#include <filesystem>
#include <fstream>
#include <string>
#include <tuple>

#include "comparison.h"
#include "frame.h"
#include "nv12_file.h"
#include "support/run_shell.h"
#include "temporary_folder.h"

namespace testing_support {

using namespace std::string_literals;
using kit::kFrameBytes;
using kit::turnedBy180;
using tools::Nv12File;

namespace {

struct ClipTest : testing::Test {
    ClipTest() {
        write(2 * kFrameBytes);
        EXPECT_EQ(mkfifo(pipe.c_str(), 0600), 0);
    }

    /** So many bytes, of which the first are given. */
    void write(size_t size, std::string content = "") const {
        for (size_t index = content.size(); index < size; ++index)
            content += static_cast<char>(index % 251);
        std::ofstream(clip, std::ios::binary) << content;
    }

    const kit::TemporaryFolder folder;
    const std::string clip = folder / "it's.yuv";
    const std::string pipe = folder / "pipe";
    const std::string listening = "listening on " + folder / "socket";
    const std::string provider = "exec " PROVIDER_TOOL " --socket " + folder / "socket --input ";
    std::string problem;
};

}  // namespace

TEST_F(ClipTest, RefusesWhatIsNoWholeNumberOfRawFrames) {
    // Its bytes, how it begins, whether a part may be left out, and the problem if there is one.
    const std::tuple<size_t, std::string, bool, std::string> clips[] = {
        {kFrameBytes, "", false, ""},
        {kFrameBytes - 1, "", true, "its 1382399 bytes are less than a frame"},
        {kFrameBytes + 1, "", false, "leaves out the 1 at its end"},
        {kFrameBytes + 1, "", true, ""},
        {kFrameBytes, "\x1A\x45\xDF\xA3", true, "seems to be a Matroska file"},
        {kFrameBytes, "\0\0\0\x20"s + "ftypisom", true, "/it'\\''s.yuv' -f rawvideo"},
    };
    for (const auto& [size, beginning, partial, expected] : clips) {
        write(size, beginning);
        problem.clear();
        EXPECT_EQ(Nv12File::open(clip, problem, partial).has_value(), expected.empty());
        EXPECT_TRUE(has(problem, expected) && problem.empty() == expected.empty()) << problem;
    }
}

TEST_F(ClipTest, TellsFramesThatAreOnlyTurned) {
    const kit::Frame first = Nv12File::open(clip, problem)->frame(0);
    kit::Frame other = first;
    other[1] ^= 1;
    for (const bool turned : {false, true}) {
        const kit::Frame right = turned ? turnedBy180(first) : first;
        tools::Comparison comparison(*Nv12File::open(clip, problem), turned);
        tools::Answer answer = {};
        const auto faultOf = [&](uint32_t number, const kit::Frame& frame) {
            answer.frameNumber = number;
            answer.frame = frame;
            return comparison.faultOf(answer, {});
        };
        EXPECT_TRUE(has(faultOf(0, other), "is none of the file's frames"));
        EXPECT_EQ(faultOf(0, right), "");
        EXPECT_TRUE(has(faultOf(1, right), "is not the file's frame"));
        EXPECT_TRUE(has(faultOf(2, turnedBy180(right)),  // the file's first frame again
                        turned ? "; upright it would" : "; turned by 180 degrees it would"));
    }
}

TEST_F(ClipTest, IsPlayedAndComparedWithFromAPipe) {
    const std::string filling = "cat \"" + clip + "\" >" + pipe;
    const auto first = startShell(filling);
    const auto playing = startShell(provider + "- --partial <" + pipe);
    EXPECT_EQ(playing->nextLine(kPatience), listening);
    EXPECT_TRUE(has(*playing->nextLine(kPatience), "standard input is played as NV12"));
    const auto second = startShell(filling);
    expectRuns(CLIENT_TOOL " --frames 3 --socket " + folder / "socket",
               {{"--compare " + pipe, 0, ""}});
}

TEST_F(ClipTest, EndsTheProviderWhenItIsCutShort) {
    const auto playing = startShell(provider + "\"" + clip + "\"");
    EXPECT_EQ(playing->nextLine(kPatience), listening);
    std::filesystem::resize_file(clip, kFrameBytes);
    EXPECT_TRUE(has(playing->rest(kPatience), " has become shorter while it was played\n"));
    EXPECT_EQ(playing->exitCode(kPatience), 1);
}

}  // namespace testing_support
