// The client program: its way from its start to its end, whatever its provider and others do, and
// what it writes, and where to.

#include <signal.h>

#include <cstdint>
#include <filesystem>
#include <string>
#include <tuple>

#include "support/client_tool_fixture.h"
#include "view/announcements.h"

namespace testing_support {

using ClientToolTest = ClientToolFixture;

TEST_F(ClientToolTest, EndsInOrderWhenItIsInterrupted) {
    for (const int number : {SIGINT, SIGTERM, SIGHUP}) {
        after(5, [this, number] { kill(tool, number); });
        EXPECT_EQ(run("--frames 0 --json json --raw raw"), 0) << number;
        EXPECT_TRUE(has(read("json"), "\"interrupted\"")) << read("json");
        EXPECT_TRUE(exists("raw") && !exists("raw.part") && !exists("json.part"));
        EXPECT_EQ(std::filesystem::file_size(folder / "raw") % kit::kFrameBytes, 0U);
        EXPECT_EQ(read("err").find('\n') + 1, read("err").size()) << read("err");  // says so
        std::filesystem::remove(folder / "json");
    }
    for (const std::string& line : log.said())
        EXPECT_EQ(line[0], 'I') << line;
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

    listen();
    after(5, [this] { EXPECT_TRUE(client->setCallback(callback).isOk()); });
    EXPECT_EQ(run("--frames 0"), 4);
    EXPECT_TRUE(has(read("err"), "another client has taken the session over")) << read("err");
}

TEST_F(ClientToolTest, SaysInOneSentenceWhatIsWrong) {
    const std::string full = " cannot be written: No space left on device\n";
    expectRuns(
        "cd " + folder.path().string() + "; exec >/dev/null; C='" CLIENT_TOOL " --socket socket';",
        {{"$C --size 3x0", 2, "fdstream-client: --size: 3x0 is no size"},
         {"$C --y4m - --raw -", 2, "fdstream-client: --raw and --y4m cannot both go to -\n"},
         {"$C --frames 2 --json /dev/full", 1, "fdstream-client: /dev/full" + full},
         {"($C --frames 0 --size 64x64 --y4m -; echo $? >&2) | head -c 100000", 0, "0\n"},
         {"$C --frames 0 --raw - | head -c 1000", 0,
          "standard output cannot be written: Broken pipe"},
         {"ulimit -f 4000; $C --frames 0 --raw raw", 1,
          "fdstream-client: raw.part cannot be written: File too large\n"}});
    EXPECT_TRUE(exists("raw.part") && !exists("raw"));
}

TEST_F(ClientToolTest, AsksForNoMoreThanIsRead) {
    // 32 that nobody has looked at, the one that is written, and its four buffers.
    after(40, [this] { EXPECT_TRUE(exists("go")); });
    // In that time it would ask for the others, too.
    EXPECT_EQ(run("--frames 60 --raw - | { sleep 0.3; touch go; cat; } >/dev/null"), 0);
}

TEST_F(ClientToolTest, WritesY4mWithTheRateAndTheLastFrameForOneThatIsMissing) {
    constexpr size_t kLuma = 35 * 23;
    constexpr size_t kChroma = 18 * 12;
    // The arguments, what is told of from frame to frame, and what the header says then.
    const std::tuple<std::string, uint64_t, std::string> cases[] = {
        {"--frames 12", 33366667, "30000:1001"},
        {"--frames 3", 41666667, "24:1"},  // ends before the tenth
        {"--frames 3 --fps 12.5", 33366667, "12500:1000"}};
    for (const auto& [arguments, period, rate] : cases) {
        fillBy([this, ns = period](const CaptureRequest& request) {
            FDNotifyMsg shutter =
                camera::shutterOf(request.frameNumber, 1000 + request.frameNumber * ns);
            if (request.frameNumber == 1) return BufferStatus::ERROR;
            session->sendNotify(shutter);
            return fill(request);
        });
        EXPECT_EQ(run(arguments + " --buffers 2 --y4m y4m --raw raw --size 35x23"), 1);
        const std::string raw = read("raw");
        std::string expected =
            "YUV4MPEG2 W35 H23 F" + rate + " Ip A1:1 C420mpeg2 XCOLORRANGE=LIMITED\n";
        for (size_t at = 0; at < raw.size(); at += kLuma + 2 * kChroma) {
            std::string frame = "FRAME\n" + raw.substr(at, kLuma);
            for (size_t i = 0; i < 2 * kChroma; ++i)
                frame += raw[at + kLuma + 2 * i % (2 * kChroma) + i / kChroma];
            expected += at == 0 ? frame + frame : frame;
        }
        EXPECT_TRUE(read("y4m") == expected) << read("y4m").substr(0, 70);
    }
}

}  // namespace testing_support
