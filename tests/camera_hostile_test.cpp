// What cannot be played, clients that die at any moment, and files that were corrupted, each in a
// way of its own. FDSTREAM_HOSTILE_FILES says how many of each kind.

#include <atomic>
#include <csignal>
#include <cstdlib>
#include <ctime>
#include <fstream>
#include <mutex>
#include <random>
#include <string>

#include "host/channel.h"
#include "host/served_watch.h"
#include "support/camera_fixture.h"

namespace testing_support {

using CameraHostileTest = CameraFixture;
using CameraToolTest = CameraFixture;

/** Bytes changed, cut out, doubled or cut off: most of it near the beginning, where sizes are. */
static std::string corrupted(std::string bytes, unsigned seed) {
    std::minstd_rand random(seed * 2654435761U + 1);
    const auto below = [&](size_t limit) { return random() / 7 % limit; };
    for (size_t left = 1 + below(6); left > 0 && bytes.size() > 1024; --left) {
        const size_t place = below(below(3) == 0 ? 1024 : bytes.size());
        const size_t kind = below(12);
        if (kind == 0) bytes.erase(place, 1 + below(200));
        if (kind == 1) bytes.insert(place, bytes.substr(below(1024), 1 + below(200)));
        if (kind == 2) bytes.resize(bytes.size() / 2 + below(bytes.size() / 2));
        if (kind == 3) bytes.replace(place, 4, std::string(4, below(2) == 0 ? '\xFF' : '\x7F'));
        if (kind > 3) bytes[place] = static_cast<char>(random() >> 8);
    }
    return bytes;
}

TEST_F(CameraHostileTest, HarmsNobodyInOneProcessNorTheTool) {
    // Takes a few seconds: each file is opened, and played for up to a second if it can be.
    const char* const files = getenv("FDSTREAM_HOSTILE_FILES");
    const int filesOfEachKind = files == nullptr ? 20 : std::stoi(files);
    const std::string tool =
        "cd " + folder.path().string() + "; " PROVIDER_TOOL " --socket tool --input hostile";
    const std::string aClient =
        "& timeout 2 " CLIENT_TOOL " --wait --frames 9 --socket tool; kill $!; wait $!";
    for (const std::string encoder : {"mpeg4 -f mp4", "mjpeg -f matroska", "mpeg4 -f avi"}) {
        // Of a picture that changes, so that there is something to be coded.
        writeClip("whole", "40+15*N", 12, encoder, "96x80");
        for (int seed = 0; seed < filesOfEachKind; ++seed) {
            SCOPED_TRACE(encoder + " " + std::to_string(seed));
            std::ofstream(folder / "hostile", std::ios::binary)
                << corrupted(contentOf(folder / "whole"), static_cast<unsigned>(seed));
            camera::SourceOptions options = sourceOf("hostile", 1000);
            options.decodingThreads = 1;
            const std::string refusal = play(options);
            if (seed % 50 == 0)
                expectRuns(tool,
                           {{refusal.empty() ? aClient : "", refusal.empty() ? 0 : 2, refusal}});
            if (!refusal.empty()) continue;
            const std::clock_t end = std::clock() + CLOCKS_PER_SEC;  // of the processor's time
            // What breaks down gets errors at the frames' pace.
            for (int frame = 0; frame < 30 && std::clock() < end; ++frame)
                if (askFor() == kError) break;
            source.reset();
            configure(0, {64, 48});
        }
        // After all of them a whole file plays.
        ASSERT_EQ(play(sourceOf("whole")), "");
        EXPECT_NEAR(askFor(), 40, 20);
    }
}

TEST_F(CameraToolTest, ServesTheNextClientAtFullRate) {
    // Takes a few seconds: clients are processes, and are killed while frames are on their way.
    const std::string socket = folder / "socket";
    const auto provider =
        startShell("exec " PROVIDER_TOOL
                   " --flipped --format lavfi --input testsrc2=s=320x240:r=50 --socket " +
                   socket);
    EXPECT_EQ(provider->nextLine(kPatience), "listening on " + socket);
    const std::string tool = "exec " CLIENT_TOOL " --size 160x120 --socket " + socket;
    for (int i = 0; i < 4; ++i) {
        const auto killed = startShell(tool + " --frames 0");
        EXPECT_NE(killed->nextLine(kPatience).value_or(""), "");  // some frames
        killed->signal(SIGKILL);
        expectRuns(tool, {{"--frames 25", 0, ""}});  // and leaves no result
    }
    // One that answers no notification does not keep it from ending, and is given up.
    std::unique_lock<std::mutex> inside = holdClient();
    std::atomic<bool> isGivenUp{false};
    const host::ServedWatch watch(
        callback, [&](host::ServedEnd end) { isGivenUp = end == host::ServedEnd::GIVEN_UP; });
    std::string problem;
    client = host::connect<IFDSession>(socket, problem);
    EXPECT_TRUE(client->setCallback(callback).isOk());
    EXPECT_TRUE(client->configure(configurationOf(0, {64, 48})).isOk());
    ask();
    EXPECT_TRUE(eventually([&] { return !deliveries.notified().empty(); }));
    provider->signal(SIGTERM);
    const std::string said = provider->rest(kPatience);
    EXPECT_EQ(provider->exitCode(kPatience), 0);
    inside.unlock();
    EXPECT_TRUE(eventually([&] { return isGivenUp.load(); }));
    // References to the session at its end, or a call to a client.
    EXPECT_FALSE(has(said, "references") || has(said, "no answer within")) << said;
    EXPECT_TRUE(has(said, " came\n") && has(said, " went\n")) << said;
}

}  // namespace testing_support
