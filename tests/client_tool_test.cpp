// The client program: its way from its start to its end, whatever its provider and others do, and
// what it writes, and where to.

#include <android/log.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <signal.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdint>
#include <filesystem>
#include <future>
#include <regex>
#include <string>
#include <tuple>

#include "boxes.h"
#include "host/channel.h"
#include "host/unique_fd.h"
#include "support/client_tool_fixture.h"
#include "ui/GraphicBuffer.h"
#include "view/announcements.h"
#include "whole_frame.h"

namespace testing_support {

namespace {

using ClientToolTest = ClientToolFixture;
using ClientOutputsTest = ClientToolFixture;

constexpr char kCb = 90;
constexpr char kCr = 100;

/** Luma is the frame's number; Cb and Cr have values of their own. */
BufferStatus fillWithNumber(const sp<GraphicBuffer>& memory, uint32_t number) {
    android_ycbcr planes = {};
    EXPECT_EQ(memory->lockYCbCr(0x33, &planes), 0);
    for (size_t y = 0; y < memory->getHeight(); ++y) {
        for (size_t x = 0; x < memory->getWidth(); ++x) {
            const size_t at = y / 2 * planes.cstride + x / 2 * planes.chroma_step;
            static_cast<char*>(planes.y)[y * planes.ystride + x] = static_cast<char>(number);
            static_cast<char*>(planes.cb)[at] = kCb;
            static_cast<char*>(planes.cr)[at] = kCr;
        }
    }
    memory->unlock();
    return BufferStatus::OK;
}

}  // namespace

TEST_F(ClientToolTest, EndsInOrderWhenItIsInterrupted) {
    for (const int number : {SIGINT, SIGTERM, SIGHUP}) {
        after(5, [this, number] { kill(tool, number); });
        EXPECT_EQ(run("--frames 0 --json json --raw raw"), 0) << number << read("err");
        EXPECT_TRUE(has(read("json"), "\"interrupted\"")) << read("json");
        EXPECT_TRUE(exists("raw") && !exists("raw.part") && !exists("json.part"));
        EXPECT_EQ(std::filesystem::file_size(folder / "raw") % kit::kFrameBytes, 0U);
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

TEST_F(ClientToolTest, EndsWhenAnotherClientTakesTheSession) {
    const std::string socket = folder / "of-a-program";
    const auto provider = startShell("exec " PROVIDER_TOOL " --socket " + socket);
    EXPECT_EQ(provider->nextLine(kPatience), "listening on " + socket);
    const auto first = startShell("exec " CLIENT_TOOL " --frames 0 --socket " + socket);
    EXPECT_NE(first->nextLine(kPatience).value_or(""), "");  // some frames
    std::string problem;
    auto other = host::connect<IFDSession>(socket, problem);
    EXPECT_TRUE(other->setCallback(callback).isOk());
    EXPECT_TRUE(has(first->rest(kPatience), "another client has taken the session over"));
    EXPECT_EQ(first->exitCode(kPatience), 4);

    EXPECT_TRUE(other->setCallback(nullptr).isOk());
    provider->signal(SIGTERM);
    const std::string it = "client " + std::to_string(first->id());
    const std::string me = "client " + std::to_string(getpid());
    const std::string said = provider->rest(kPatience);
    // Between them it hangs on the moment: the first may go before the other's call ends.
    EXPECT_EQ(said.rfind(it + " came\n" + me + " came\n", 0), 0U) << said;
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
    EXPECT_TRUE(matches(read("json"), "\"(missing|failed)\": [1-4],")) << read("json");
    EXPECT_TRUE(has(read("json"), "{\"frame\": 39,")) << read("json");
}

TEST_F(ClientOutputsTest, SaysInOneSentenceWhatIsWrong) {
    const std::string full = " cannot be written: No space left on device\n";
    expectRuns(
        "cd " + folder.path().string() + "; exec >/dev/null; C='" CLIENT_TOOL " --socket socket';",
        {{"$C --size 3x0", 2, "fdstream-client: --size: 3x0 is no size"},
         {"$C --y4m - --raw -", 2, "fdstream-client: --raw and --y4m cannot both go to -\n"},
         {"$C --watch", 2, "fdstream-client: --watch needs a terminal to show the stream in\n"},
         {"$C --help | grep '.\\{81\\}' >&2", 1, ""},
         {"$C --frames 2 --json /dev/full", 1, "fdstream-client: /dev/full" + full},
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
    EXPECT_EQ(read("out").size(), 3 * kit::kFrameBytes);
    EXPECT_TRUE(has(read("err"), "delivered"));

    EXPECT_EQ(run("--frames 3 --buffers 2 --json -"), 0) << read("err");
    const std::string json = read("out");
    EXPECT_EQ(json.front(), '{');
    EXPECT_TRUE(has(json, "{\"frame\": 2, \"outcome\": \"delivered\"")) << json;
    EXPECT_FALSE(has(json, "\"foreign\": 0")) << json;  // an earlier client's came, too
    const std::string guide = contentOf(JSON_GUIDE);
    const std::regex field("\"([^\"]+)\":");
    for (std::sregex_iterator one(json.begin(), json.end(), field), end; one != end; ++one)
        EXPECT_TRUE(has(guide, "`" + one->str(1) + "`")) << one->str(1);
}

TEST_F(ClientOutputsTest, AsksForNoMoreThanIsRead) {
    ASSERT_EQ(mkfifo((folder / "pipe").c_str(), 0600), 0);
    const host::UniqueFd reader(open((folder / "pipe").c_str(), O_RDONLY | O_NONBLOCK));
    auto running = std::async(std::launch::async, [this] { return run("--frames 0 --raw pipe"); });
    EXPECT_TRUE(eventually([&] {
        const int before = served;
        usleep(100000);  // as long as it takes for some frames more
        pollfd entry = {reader.get(), POLLIN, 0};
        return poll(&entry, 1, 0) == 1 && served == before;
    }));
    EXPECT_LT(served, 50);
    kill(tool, SIGINT);
    EXPECT_EQ(running.get(), 1);
    EXPECT_TRUE(has(read("err"), "pipe cannot be written: Interrupted")) << read("err");
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
            if (number == 1) return BufferStatus::ERROR;
            FDNotifyMsg shutter =
                camera::shutterOf(number, static_cast<uint64_t>(1e9 * (1 + number / announced)));
            session->sendNotify(shutter);
            return fillWithNumber(session->getBufferForId(request.outputBuffers[0].bufferId),
                                  number);
        });
        EXPECT_EQ(run("--frames " + std::to_string(frames) +
                      " --buffers 2 --y4m y4m --raw raw --size " + size),
                  1);
        std::string expected = "YUV4MPEG2 " + header + " Ip A1:1 C420mpeg2 XCOLORRANGE=LIMITED\n";
        for (uint32_t number = 0; number < frames; ++number)
            expected += "FRAME\n" + std::string(luma, static_cast<char>(number == 1 ? 0 : number)) +
                        std::string(chroma, kCb) + std::string(chroma, kCr);
        EXPECT_TRUE(read("y4m") == expected) << header << ' ' << read("y4m").substr(0, 70);
        EXPECT_EQ(read("raw").size(), (frames - 1) * (luma + 2 * chroma)) << header;
    }
}

TEST_F(ClientOutputsTest, EndsInSilenceWithItsReader) {
    run("--frames 0 --size 64x64 --y4m -; echo $? >code; } | head -c 100000 >read", "{");
    EXPECT_EQ(read("code"), "0\n");
    EXPECT_EQ(read("read").size(), 100000U);
    EXPECT_TRUE(matches(read("err"), "^(client: [0-9]+ frames\n)*$")) << read("err");
}

TEST(DetectPartsTest, DrawsOfABoxWhatIsInsideAFrameOfAnySize) {
    const kit::FrameSize size = {15, 9};
    kit::Frame frame(tools::wholeBytes(size), 1);
    tools::drawBoxes(frame, size, {{-5, 2, 12, 40}, {8, -100, 100, 300}, {50, 50, 5, 5}}, 1);
    std::string drawn;
    for (size_t at = 0; at < size.lumaBytes(); ++at)
        drawn += frame[at] == 1 ? '.' : '#';
    const std::string row = "......#.#......";
    EXPECT_EQ(drawn,
              "........#..............#......#######.#......" + row + row + row + row + row + row);
}

}  // namespace testing_support
