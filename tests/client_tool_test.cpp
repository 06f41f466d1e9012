// The client program: its way from its start to its end, whatever its provider and others do, and
// what it writes, and where to; and the raw clips that are played and compared with.

#include <android/log.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <unistd.h>

#include <cstdint>
#include <filesystem>
#include <fstream>
#include <future>
#include <memory>
#include <string>
#include <tuple>

#include "host/channel.h"
#include "nv12_file.h"
#include "support/client_tool_fixture.h"
#include "view/announcements.h"

namespace testing_support {

namespace {

using namespace std::string_literals;
using kit::kFrameBytes;
using tools::Nv12File;
using ClientToolTest = ClientToolFixture;
using ClientOutputsTest = ClientToolFixture;

/** Of programs only, with a raw clip of two frames. */
struct ToolsTest : SessionFixture {
    ToolsTest() { write(2 * kFrameBytes); }

    /** So many bytes, of which the first are given. */
    void write(size_t size, std::string content = "") const {
        for (size_t index = content.size(); index < size; ++index)
            content += static_cast<char>(index % 251);
        std::ofstream(clip, std::ios::binary) << content;
    }
    std::unique_ptr<kit::ChildProcess> provide(const std::string& arguments = "") const {
        auto program = startShell("exec " PROVIDER_TOOL " --socket " + socket + " " + arguments);
        EXPECT_EQ(program->nextLine(kPatience), "listening on " + socket);
        return program;
    }

    const kit::TemporaryFolder folder;
    const std::string clip = folder / "it's.yuv";
    const std::string quoted = "\"" + clip + "\"";
    const std::string socket = folder / "socket";
    const std::string tool = CLIENT_TOOL " --socket " + socket;
    std::string problem;
};

}  // namespace

TEST_F(ClientToolTest, EndsInOrderWhenItIsInterrupted) {
    for (const int number : {SIGINT, SIGTERM, SIGHUP}) {
        after(5, [this, number] { kill(tool, number); });
        EXPECT_EQ(run("--frames 0 --json json --raw raw"), 0) << number << read("err");
        EXPECT_TRUE(has(read("json"), "\"interrupted\"")) << read("json");
        EXPECT_TRUE(exists("raw") && !exists("raw.part") && !exists("json.part"));
        EXPECT_EQ(std::filesystem::file_size(folder / "raw") % kFrameBytes, 0U);
        std::filesystem::remove(folder / "json");
    }
}

TEST_F(ClientToolTest, LeavesNoErrorBehindAtACleanEnd) {
    // Takes a second or two: without the wait at its end only some of twenty left one, and those at
    // a camera's pace.
    pauseUs = 20000;
    for (int i = 0; i < 20; ++i)
        EXPECT_EQ(run("--frames 2"), 0) << read("err");
    for (const host::LogLine& line : log.lines())
        EXPECT_LT(line.priority, ANDROID_LOG_ERROR) << line.text;
}

TEST_F(ClientToolTest, TellsAProviderThatIsGoneFromOneThatIsNotThere) {
    after(3, [this] {
        EXPECT_TRUE(eventually([this] { return !read("raw.part").empty(); }));
        server.reset();
    });
    EXPECT_EQ(run("--frames 100 --raw raw"), 3);
    EXPECT_TRUE(has(read("err"), "the provider is gone")) << read("err");
    EXPECT_TRUE(exists("raw.part") && !exists("raw"));
    EXPECT_EQ(run("--frames 1"), 3);  // nobody listens any more
    EXPECT_TRUE(has(read("err"), "there is no provider")) << read("err");

    auto waiting = std::async(std::launch::async, [this] { return run("--wait --frames 1"); });
    EXPECT_TRUE(eventually([&] { return has(read("err"), "waiting for a provider"); }));
    listen();
    EXPECT_EQ(waiting.get(), 0) << read("err");
}

TEST_F(ToolsTest, EndWhenAnotherClientTakesTheSession) {
    const auto provider = provide();
    const auto first = startShell("exec " + tool + " --frames 0");
    EXPECT_NE(first->nextLine(kPatience).value_or(""), "");  // some frames
    auto other = host::connect<IFDSession>(socket, problem);
    EXPECT_TRUE(other->setCallback(callback).isOk());
    EXPECT_TRUE(has(first->rest(kPatience), "another client has taken the session over"));
    EXPECT_EQ(first->exitCode(kPatience), 4);

    EXPECT_TRUE(other->setCallback(nullptr).isOk());
    provider->signal(SIGTERM);
    const std::string said = provider->rest(kPatience);
    const std::string it = "client " + std::to_string(first->id());
    EXPECT_EQ(said.rfind(it + " came\nclient " + std::to_string(getpid()) + " came\n", 0), 0U)
        << said;
    EXPECT_TRUE(has(said, it + " went\n")) << said;
}

TEST_F(ClientToolTest, ConnectsAnewWhenTheProviderGaveItUp) {
    // Takes as long as the bounded wait for a client that does not answer.
    const char* const failure =
        "threadLoop: processCaptureResult transaction failed: Status(EX_TRANSACTION_FAILED): "
        "'TIMED_OUT: no answer within 1000 ms'";
    after(5, [&] {
        EXPECT_TRUE(eventually([&] { return session->isCaptureRequestReady(); }));  // it loses one
        kill(tool, SIGSTOP);
        CaptureResult result = {};
        result.outputBuffers.resize(1);
        session->sendCaptureResult(result);
        EXPECT_TRUE(log.waitFor(failure));
        kill(tool, SIGCONT);
    });
    EXPECT_EQ(run("--frames 40 --json json"), 1) << read("err");
    EXPECT_TRUE(has(read("err"), "the provider has given this client up")) << read("err");
    // Lost with its channel, or answered with an error on the new one: whichever call timed out.
    EXPECT_FALSE(has(read("json"), "\"missing\": 0,") && has(read("json"), "\"failed\": 0,"));
    EXPECT_TRUE(has(read("json"), "{\"frame\": 39,")) << read("json");
}

TEST_F(ClientOutputsTest, SaysInOneSentenceWhatIsWrong) {
    const std::string full = " cannot be written: No space left on device\n";
    expectRuns(
        "cd " + folder.path().string() + "; exec >/dev/null; C='" CLIENT_TOOL " --socket socket';",
        {{"$C --size 3x0", 2, "fdstream-client: --size: 3x0 is no size"},
         {"$C --y4m - --raw -", 2, "fdstream-client: --raw and --y4m cannot both go to -\n"},
         {"$C --watch", 2, "fdstream-client: --watch needs a terminal to show the stream in\n"},
         {"$C --frames 2 --json /dev/full", 1, "fdstream-client: /dev/full" + full},
         {"($C --frames 0 --size 64x64 --y4m -; echo $? >&2) | head -c 100000", 0, "0\n"},
         {"$C --version >/dev/full", 2, "fdstream-client: standard output" + full},
         {"$C --frames 0 --raw - | head -c 1000", 0,
          "standard output cannot be written: Broken pipe"},
         {"ln -s /dev/full frame-000.png.part; $C --frames 0 --png .", 1,
          "fdstream-client: ./frame-000.png.part" + full},
         {"ulimit -f 4000; $C --frames 0 --raw raw", 1,
          "fdstream-client: raw.part cannot be written: File too large\n"}});
    EXPECT_TRUE(exists("raw.part") && !exists("raw"));
}

TEST_F(ClientOutputsTest, KeepsTheStandardOutputForWhatIsToGoThere) {
    EXPECT_EQ(run("--frames 3 --raw -"), 0) << read("err");
    EXPECT_EQ(read("out").size(), 3 * kFrameBytes);
    EXPECT_TRUE(has(read("err"), "delivered"));

    EXPECT_EQ(run("--frames 3 --buffers 2 --json -"), 0) << read("err");
    const std::string json = read("out");
    EXPECT_EQ(json.front(), '{');
    EXPECT_TRUE(has(json, "{\"frame\": 2, \"outcome\": \"delivered\"")) << json;
}

TEST_F(ClientOutputsTest, HasThePlanesTheRateAndTheLastFrameForOneThatIsMissing) {
    // The size, frames, what is announced a second, the header, and the planes' bytes.
    const std::tuple<std::string, uint32_t, double, std::string, size_t, size_t> cases[] = {
        {"35x23", 12, 30000 / 1001.0, "W35 H23 F30000:1001", 805, 216},
        {"1x1", 3, 24, "W1 H1 F24:1", 1, 1},  // ends before the tenth
        {"6x3 --fps 12.5", 4, 30, "W6 H3 F12500:1000", 18, 6},
    };
    for (const auto& [size, frames, perSecond, header, luma, chroma] : cases) {
        fillBy([this, announced = perSecond](const CaptureRequest& request) {
            const uint32_t number = request.frameNumber;
            FDNotifyMsg shutter =
                camera::shutterOf(number, static_cast<uint64_t>(1e9 * (1 + number / announced)));
            if (number != 1) session->sendNotify(shutter);
            return number == 1 ? BufferStatus::ERROR : fill(request);
        });
        EXPECT_EQ(run("--frames " + std::to_string(frames) +
                      " --buffers 2 --y4m y4m --raw raw --size " + size),
                  1);
        const std::string raw = read("raw");
        EXPECT_EQ(raw.size(), (frames - 1) * (luma + 2 * chroma)) << header;
        std::string expected = "YUV4MPEG2 " + header + " Ip A1:1 C420mpeg2 XCOLORRANGE=LIMITED\n";
        for (size_t frame = 0; frame < frames; ++frame) {
            const std::string packed =
                raw.substr((frame < 1 ? 0 : frame - 1) * (luma + 2 * chroma));
            expected += "FRAME\n" + packed.substr(0, luma);
            for (size_t i = 0; i < 2 * chroma; ++i)
                expected += packed[luma + (i < chroma ? 2 * i : 2 * (i - chroma) + 1)];
        }
        EXPECT_TRUE(read("y4m") == expected) << header << ' ' << read("y4m").substr(0, 70);
    }
}

TEST_F(ToolsTest, RefuseWhatIsNoWholeNumberOfRawFrames) {
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

TEST_F(ToolsTest, PlayAndCompareFromAPipe) {
    const auto playing = provide("--input - --partial <" + quoted);
    EXPECT_TRUE(has(*playing->nextLine(kPatience), "standard input is played as NV12"));
    const std::string compare = " | " + tool + " --frames 3 --compare -";
    expectRuns("cat " + quoted,
               {{compare, 0, ""}, {"| tr a b" + compare, 1, "is none of the file's frames"}});
}

TEST_F(ToolsTest, EndWhenTheClipIsCutShort) {
    const auto playing = provide("--input " + quoted);
    std::filesystem::resize_file(clip, kFrameBytes);
    EXPECT_TRUE(has(playing->rest(kPatience), " has become shorter while it was played\n"));
    EXPECT_EQ(playing->exitCode(kPatience), 1);
}

}  // namespace testing_support
