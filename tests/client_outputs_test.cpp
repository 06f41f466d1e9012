// What the client program and the one that finds faces write, and where to.

#include <fcntl.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <signal.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cstdint>
#include <cstring>
#include <future>
#include <regex>
#include <string>
#include <tuple>
#include <vector>

#include "boxes.h"
#include "faces_json.h"
#include "host/unique_fd.h"
#include "support/client_tool_fixture.h"
#include "ui/GraphicBuffer.h"
#include "view/announcements.h"
#include "whole_frame.h"

namespace testing_support {

namespace {

using ClientOutputsTest = ClientToolFixture;
using kit::kFrameBytes;

constexpr char kCb = 90;
constexpr char kCr = 100;

/** The columns and lines of a terminal that are written on by what --watch writes. */
std::pair<size_t, size_t> extentOf(const std::string& written) {
    std::pair<size_t, size_t> extent;
    size_t column = 1;
    size_t line = 1;
    const size_t end = written.find("\x1b[?25h");
    for (size_t at = written.find("\x1b[2J"); at < end; ++at) {
        const char byte = written[at];
        if (byte == '\x1b') {
            const size_t code = written.find_first_of("GHJKhlm", at);
            if (written[code] == 'H') column = line = 1;
            if (written[code] == 'G') column = std::stoul(written.substr(at + 2));
            at = std::min(code, written.size());
        } else if (byte == '\r') {
            column = 1;
        } else if (byte == '\n') {
            ++line;
        } else if ((byte & 0xC0) != 0x80) {
            extent = {std::max(extent.first, column++), std::max(extent.second, line)};
        }
    }
    return extent;
}

class ClientY4mTest : public ClientToolFixture {
protected:
    /** Luma is the frame's number; Cb and Cr have values of their own. */
    BufferStatus fillWithNumber(const CaptureRequest& request) {
        const auto memory = session->getBufferForId(request.outputBuffers[0].bufferId);
        android_ycbcr planes = {};
        EXPECT_EQ(memory->lockYCbCr(0x33, &planes), 0);
        const size_t width = memory->getWidth();
        for (size_t y = 0; y < memory->getHeight(); ++y) {
            memset(static_cast<char*>(planes.y) + y * planes.ystride,
                   static_cast<int>(request.frameNumber), width);
            for (size_t x = 0; x < (width + 1) / 2; ++x) {
                const size_t at = y / 2 * planes.cstride + x * planes.chroma_step;
                static_cast<char*>(planes.cb)[at] = kCb;
                static_cast<char*>(planes.cr)[at] = kCr;
            }
        }
        memory->unlock();
        return BufferStatus::OK;
    }
};

}  // namespace

TEST_F(ClientOutputsTest, SaysInOneSentenceWhatIsWrong) {
    const std::string clip = "fdstream-client: --compare goes with the clip's own size, 1280x720\n";
    const std::string full = " cannot be written: No space left on device\n";
    expectRuns(
        "cd " + folder.path().string() + "; exec >/dev/null; C='" CLIENT_TOOL " --socket socket';",
        {{"$C --frames x", 2, "fdstream-client: Could not convert: --frames = x"},
         {"$C --size 3x0", 2, "fdstream-client: --size: 3x0 is no size"},
         {"$C --raw - --json -", 2, "fdstream-client: --raw and --json cannot both go to -\n"},
         {"$C --raw one --json one", 2,
          "fdstream-client: --raw and --json cannot both go to one\n"},
         {"$C --y4m - --raw -", 2, "fdstream-client: --raw and --y4m cannot both go to -\n"},
         {"$C --watch", 2, "fdstream-client: --watch needs a terminal to show the stream in\n"},
         {"$C --watch --json -", 2, "where nothing else can go then"},
         {"$C --compare socket --size 64x64", 2, clip},
         {"$C --help", 0, ""},
         {"$C --help | grep '.\\{81\\}' >&2", 1, ""},
         {"$C --frames 0 --raw /dev/full", 1, "fdstream-client: /dev/full" + full},
         {"$C --frames 2 --json /dev/full", 1, "fdstream-client: /dev/full" + full},
         {"$C --frames 0 >/dev/full", 1, "fdstream-client: standard output" + full},
         {"$C --help >/dev/full", 2, "fdstream-client: standard output" + full},
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
    EXPECT_FALSE(matches(read("err"), "[^\n]{81}")) << read("err");

    EXPECT_EQ(run("--frames 3 --buffers 2 --json -"), 0) << read("err");
    const std::string json = read("out");
    EXPECT_EQ(json.front(), '{');
    for (const char* const part : {"\"height\": 720", "\"buffers\": 2", "\"delivered\": 3",
                                   "{\"frame\": 2, \"outcome\": \"delivered\""})
        EXPECT_TRUE(has(json, part)) << part;
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

TEST_F(ClientOutputsTest, WatchesWithinTheWindowAndInItsColours) {
    const std::tuple<const char*, const char*, size_t, size_t> terminals[] = {
        {"TERM=xterm-256color", "8;5;", 100, 30},
        {"TERM=xterm COLORTERM=truecolor", "8;2;", 40, 6},
        {"TERM=xterm-256color COLORTERM=truecolor NO_COLOR=1", "none", 10, 2},
        {"TERM=xterm", "none", 24, 3},
    };
    for (const auto& [environment, colour, columns, lines] : terminals) {
        const std::string size =
            "stty cols " + std::to_string(columns) + " rows " + std::to_string(lines) + "; ";
        const std::string before = "script -qec '" + size + "env -u COLORTERM " + environment;
        EXPECT_EQ(run("--watch --frames 3' /dev/null </dev/null", before), 0) << read("out");
        for (const char* const each : {"8;5;", "8;2;"})
            EXPECT_EQ(has(read("out"), each), colour == std::string(each)) << environment;
        const auto [widest, highest] = extentOf(read("out"));
        EXPECT_TRUE(widest > 0 && widest <= columns) << widest;
        EXPECT_TRUE(highest > 0 && highest <= lines) << highest;
    }
    EXPECT_EQ(run("--watch' /dev/null </dev/null", "script -qec 'TERM=dumb"), 2);
    EXPECT_TRUE(has(read("out"), "cursor")) << read("out");
}

TEST_F(ClientY4mTest, HasThePlanesTheRateAndTheLastFrameForOneThatIsMissing) {
    // The size, frames, what is announced a second or 0, the header, and the planes' bytes.
    const std::vector<std::tuple<std::string, uint32_t, double, std::string, size_t, size_t>>
        cases = {
            {"", 12, 30000 / 1001.0, "W1280 H720 F30000:1001", 921600, 230400},
            {"--size 35x23", 3, 24, "W35 H23 F24:1", 805, 216},  // ends before the tenth
            {"--size 1x1", 12, 0, "W1 H1 F25:1", 1, 1},
            {"--size 6x3 --fps 12.5", 4, 30, "W6 H3 F12500:1000", 18, 6},
            {"--size 2x1", 12, 30, "W2 H1 F30:1", 2, 1},
        };
    for (const auto& [size, frames, perSecond, header, luma, chroma] : cases) {
        fillBy([this, announced = perSecond](const CaptureRequest& request) {
            if (request.frameNumber == 1) return BufferStatus::ERROR;
            const double ns = 1e9 + (announced > 0 ? 1e9 / announced * request.frameNumber : 0);
            FDNotifyMsg shutter = camera::shutterOf(request.frameNumber, static_cast<uint64_t>(ns));
            if (announced > 0) session->sendNotify(shutter);
            return fillWithNumber(request);
        });
        EXPECT_EQ(
            run("--frames " + std::to_string(frames) + " --buffers 2 --y4m y4m --raw raw " + size),
            1);
        std::string expected = "YUV4MPEG2 " + header + " Ip A1:1 C420mpeg2 XCOLORRANGE=LIMITED\n";
        for (uint32_t number = 0; number < frames; ++number)
            expected += "FRAME\n" + std::string(luma, static_cast<char>(number == 1 ? 0 : number)) +
                        std::string(chroma, kCb) + std::string(chroma, kCr);
        EXPECT_TRUE(read("y4m") == expected) << header << ' ' << read("y4m").substr(0, 70);
        EXPECT_EQ(read("raw").size(), (frames - 1) * (luma + 2 * chroma)) << header;
    }
}

TEST_F(ClientY4mTest, EndsInSilenceWithItsReader) {
    run("--frames 0 --size 64x64 --y4m -; echo $? >code; } | head -c 100000 >read", "{");
    EXPECT_EQ(read("code"), "0\n");
    EXPECT_EQ(read("read").size(), 100000U);
    EXPECT_TRUE(matches(read("err"), "^(client: [0-9]+ frames\n)*$")) << read("err");
}

TEST(DetectPartsTest, SaysOfAFrameWhatIsKnown) {
    tools::Answer answer = {};
    answer.frameNumber = 7;
    answer.outcome = tools::Answer::Outcome::Skipped;
    const std::string unknown = R"("faces": null, "faces_in_picture": null, )"
                                R"("detection_ms": null, "camera_to_faces_ms": null})";
    EXPECT_EQ(tools::lineOf(answer, nullptr),
              R"({"frame": 7, "outcome": "skipped", "sensor_ns": null, "picture": null, )"
              R"("turned": null, "view": null, )" +
                  unknown + "\n");
    answer.told.sensorNs = 5000000000;
    answer.told.picture = camera::Picture{{1280, 720}, true};
    answer.told.view = camera::Rect{1, 2, 3, 4};
    const tools::Sight sight = {{{5, 6, 7, 8}, {9, 10, 11, 12}}, {{}}, 1.5, {}};
    EXPECT_EQ(tools::lineOf(answer, &sight),
              R"({"frame": 7, "outcome": "detected", "sensor_ns": 5000000000, )"
              R"("picture": [1280, 720], "turned": true, "view": [1, 2, 3, 4], )"
              R"("faces": [[5, 6, 7, 8], [9, 10, 11, 12]], "faces_in_picture": [], )"
              R"("detection_ms": 1.500, "camera_to_faces_ms": null})"
              "\n");
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
