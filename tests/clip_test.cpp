// Raw clips: which files are taken for one, from where, and what a comparison with one says.

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <csignal>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "comparison.h"
#include "frame.h"
#include "nv12_file.h"
#include "spool.h"
#include "support/run_shell.h"
#include "temporary_folder.h"

namespace testing_support {

namespace fs = std::filesystem;
using namespace std::string_literals;
using kit::kFrameBytes;
using kit::turnedBy180;
using tools::Nv12File;

class ClipTest : public testing::Test {
protected:
    /** So many bytes, of which the first are given. */
    std::string write(const std::string& name, const std::string& beginning, size_t size) const {
        std::string content = beginning;
        for (size_t index = content.size(); index < size; ++index)
            content += static_cast<char>(index % 251);
        std::string path = folder / name;
        std::ofstream(path, std::ios::binary) << content;
        return path;
    }
    std::string read(const fs::path& path) const {
        std::ifstream file(path, std::ios::binary);
        return {std::istreambuf_iterator<char>(file), {}};
    }
    /** Who writes this content into a new pipe. */
    std::thread makePipe(const std::string& content) const {
        const std::string pipe = folder / "pipe";
        EXPECT_EQ(mkfifo(pipe.c_str(), 0600), 0);
        return std::thread([=] { std::ofstream(pipe, std::ios::binary) << content; });
    }
    /** A provider that has printed that it listens. */
    std::unique_ptr<kit::ChildProcess> startProvider(const std::string& arguments) const {
        auto shell =
            startShell("exec " PROVIDER_TOOL " --socket " + folder / "socket" + " " + arguments);
        EXPECT_EQ(shell->nextLine(kPatience), "listening on " + folder / "socket");
        return shell;
    }

    const kit::TemporaryFolder folder;
};

TEST_F(ClipTest, RefusesWhatIsNoWholeNumberOfRawFrames) {
    const struct {
        std::string beginning;
        size_t size;
        bool partial;
        std::string problem;  // empty when it is taken
    } clips[] = {
        {"", kFrameBytes, false, ""},
        {"", 2 * kFrameBytes, true, ""},
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
    for (const auto& clip : clips) {
        const std::string path = write("it's raw", clip.beginning, clip.size);
        std::string problem;
        const auto file = Nv12File::open(path, problem, clip.partial);
        EXPECT_EQ(file.has_value(), clip.problem.empty()) << clip.problem << problem;
        EXPECT_NE(problem.find(clip.problem), std::string::npos) << problem;
        EXPECT_EQ(problem.empty(), clip.problem.empty()) << problem;
        if (problem.find("seems") == std::string::npos) continue;
        EXPECT_NE(problem.find("ffmpeg -i '" + folder.path().string() +
                               "/it'\\''s raw' -f rawvideo -pix_fmt nv12 -s 1280x720 "),
                  std::string::npos)
            << problem;
    }
}

TEST_F(ClipTest, IsReadFromAPipeToItsEnd) {
    const std::string content = read(write("clip", "", 2 * kFrameBytes));
    std::thread writer = makePipe(content);
    std::string problem;
    const auto clip = Nv12File::open(folder / "pipe", problem);
    writer.join();
    ASSERT_TRUE(clip) << problem;
    EXPECT_EQ(clip->frameCount(), 2U);
    EXPECT_EQ(clip->frame(3), kit::Frame(content.begin() + kFrameBytes, content.end()));
    EXPECT_EQ(read(clip->path()), content);

    for (const bool enough : {true, false}) {
        int ends[2] = {};
        ASSERT_EQ(::pipe(ends), 0);
        ASSERT_EQ(::write(ends[1], content.data(), 1000), 1000);
        close(ends[1]);
        const bool kept = tools::spool(ends[0], enough ? 1000 : 999, problem).isValid();
        EXPECT_EQ(kept, enough);
        EXPECT_EQ(problem, enough ? "" : "it has more than 999 bytes");
        close(ends[0]);
    }
}

TEST_F(ClipTest, TellsFramesThatAreOnlyTurned) {
    const std::string path = write("clip", "", 2 * kFrameBytes);
    std::string problem;
    const kit::Frame first = Nv12File::open(path, problem)->frame(0);
    kit::Frame other = first;
    other[1] ^= 1;
    const struct {
        bool turned;
        const kit::Frame frame;
        std::string fault;
    } cases[] = {
        {false, first, ""},
        {true, turnedBy180(first), ""},
        {false, turnedBy180(first),
         "is none of the file's frames; turned by 180 degrees it would be right"},
        {true, first, "is none of the file's frames, turned; upright it would be right"},
        {false, other, "is none of the file's frames"},
    };
    for (const auto& one : cases) {
        tools::Comparison comparison(*Nv12File::open(path, problem), one.turned);
        tools::Answer answer = {};
        answer.frame = one.frame;
        EXPECT_EQ(comparison.faultOf(answer, {}), one.fault);
        if (!one.fault.empty()) continue;
        answer.frameNumber = 2;  // the file's first frame again
        answer.frame = turnedBy180(one.frame);
        const std::string fault = comparison.faultOf(answer, {});
        EXPECT_NE(fault.find(one.turned ? "; upright it" : "; turned by 180 degrees it"),
                  std::string::npos)
            << fault;
    }
}

TEST_F(ClipTest, IsPlayedFromAPipe) {
    const std::string clip = write("clip", "", 2 * kFrameBytes);
    std::thread writer = makePipe(read(clip));
    const auto provider = startProvider("--partial --input - <" + folder / "pipe");
    writer.join();
    EXPECT_NE(provider->nextLine(kPatience)->find("standard input is played as NV12"),
              std::string::npos);
    const Output output = runShell("exec " CLIENT_TOOL " --frames 3 --socket " + folder / "socket" +
                                   " --compare " + clip);
    EXPECT_EQ(output.exitCode, 0) << output.text;
    provider->signal(SIGTERM);
    EXPECT_EQ(provider->exitCode(kPatience), 0);
}

TEST_F(ClipTest, EndsTheProviderWhenItIsCutShort) {
    const std::string clip = write("clip.yuv", "", 2 * kFrameBytes);
    const auto provider = startProvider("--input " + clip);
    fs::resize_file(clip, kFrameBytes);
    EXPECT_EQ(provider->rest(kPatience), clip +
                                             " is played as NV12 of 1280x720, 2 frames,\n"
                                             "which a file without a header cannot confirm\n"
                                             "fdstream-provider: " +
                                             clip + " has become shorter while it was played\n");
    EXPECT_EQ(provider->exitCode(kPatience), 1);
}

}  // namespace testing_support
