// The client program: its way from its start to its end, whatever its provider and others do, and
// what it writes, and where to; and the raw clips that are played and compared with.

#include <gtest/gtest.h>
#include <signal.h>
#include <unistd.h>

#include <cstdint>
#include <filesystem>
#include <fstream>
#include <future>
#include <memory>
#include <string>

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

TEST_F(ClientToolTest, TellsAProviderThatIsGoneFromOneThatIsNotThereOrAnothers) {
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

    after(5, [this] { EXPECT_TRUE(client->setCallback(callback).isOk()); });
    EXPECT_EQ(run("--frames 0"), 4);
    EXPECT_TRUE(has(read("err"), "another client has taken the session over")) << read("err");
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

TEST_F(ClientToolTest, SaysInOneSentenceWhatIsWrong) {
    const std::string full = " cannot be written: No space left on device\n";
    expectRuns(
        "cd " + folder.path().string() + "; exec >/dev/null; C='" CLIENT_TOOL " --socket socket';",
        {{"$C --size 3x0", 2, "fdstream-client: --size: 3x0 is no size"},
         {"$C --y4m - --raw -", 2, "fdstream-client: --raw and --y4m cannot both go to -\n"},
         {"$C --watch", 2, "fdstream-client: --watch needs a terminal to show the stream in\n"},
         {"$C --frames 2 --json /dev/full", 1, "fdstream-client: /dev/full" + full},
         {"($C --frames 0 --size 64x64 --y4m -; echo $? >&2) | head -c 100000", 0, "0\n"},
         {"$C --frames 0 --raw - | head -c 1000", 0,
          "standard output cannot be written: Broken pipe"},
         {"ulimit -f 4000; $C --frames 0 --raw raw", 1,
          "fdstream-client: raw.part cannot be written: File too large\n"}});
    EXPECT_TRUE(exists("raw.part") && !exists("raw"));
}

TEST_F(ClientToolTest, KeepsTheStandardOutputForWhatIsToGoThere) {
    EXPECT_EQ(run("--frames 3 --raw -"), 0) << read("err");
    EXPECT_EQ(read("out").size(), 3 * kFrameBytes);
    EXPECT_TRUE(has(read("err"), "delivered"));
}

TEST_F(ClientToolTest, WritesY4mWithTheRateAndTheLastFrameForOneThatIsMissing) {
    constexpr size_t kLuma = 35 * 23;
    constexpr size_t kChroma = 18 * 12;
    fillBy([this](const CaptureRequest& request) {
        const uint32_t number = request.frameNumber;
        FDNotifyMsg shutter = camera::shutterOf(number, 1000 + number * uint64_t{33366667});
        if (number != 1) session->sendNotify(shutter);
        return number == 1 ? BufferStatus::ERROR : fill(request);
    });
    EXPECT_EQ(run("--frames 12 --buffers 2 --y4m y4m --raw raw --size 35x23"), 1);
    const std::string raw = read("raw");
    std::string expected = "YUV4MPEG2 W35 H23 F30000:1001 Ip A1:1 C420mpeg2 XCOLORRANGE=LIMITED\n";
    for (size_t frame = 0; frame < 12; ++frame) {
        const std::string packed = raw.substr((frame < 1 ? 0 : frame - 1) * (kLuma + 2 * kChroma));
        expected += "FRAME\n" + packed.substr(0, kLuma);
        for (size_t i = 0; i < 2 * kChroma; ++i)
            expected += packed[kLuma + (i < kChroma ? 2 * i : 2 * (i - kChroma) + 1)];
    }
    EXPECT_TRUE(read("y4m") == expected) << read("y4m").substr(0, 70);
}

TEST_F(ToolsTest, RefuseWhatIsNoWholeNumberOfRawFrames) {
    write(kFrameBytes + 1);
    EXPECT_TRUE(Nv12File::open(clip, problem, true));
    EXPECT_FALSE(Nv12File::open(clip, problem));
    EXPECT_TRUE(has(problem, "leaves out the 1 at its end")) << problem;
    write(kFrameBytes - 1);
    EXPECT_FALSE(Nv12File::open(clip, problem, true));
    write(kFrameBytes, "\0\0\0\x20"s + "ftypisom");
    EXPECT_FALSE(Nv12File::open(clip, problem));
    EXPECT_TRUE(has(problem, "/it'\\''s.yuv' -f rawvideo")) << problem;
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
