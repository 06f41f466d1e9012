// Damaged files: a client is served by one camera after another, each with a file that was
// corrupted in a way of its own. FDSTREAM_HOSTILE_FILES says how many of each kind.

#include <gtest/gtest.h>
#include <sys/resource.h>

#include <algorithm>
#include <cstdlib>
#include <ctime>
#include <fstream>
#include <random>
#include <string>

#include "support/camera_fixture.h"
#include "support/clip_writer.h"

namespace testing_support {

namespace {

constexpr std::pair<const char*, const char*> kKinds[] = {
    {"mp4", "mpeg4"}, {"matroska", "mjpeg"}, {"avi", "mpeg4"}};

/** Bytes changed, cut out, doubled or cut off: most of it near the beginning, where sizes are. */
std::string corrupted(std::string bytes, unsigned seed) {
    std::minstd_rand random(seed * 2654435761U + 1);
    const auto below = [&](size_t limit) { return random() / 7 % limit; };
    for (size_t left = 1 + below(12); left > 0 && bytes.size() > 64; --left) {
        const size_t most = below(3) == 0 ? std::min<size_t>(bytes.size(), 1024) : bytes.size();
        const size_t place = below(most);
        const size_t kind = below(8);
        if (kind == 0) bytes.erase(place, 1 + below(200));
        if (kind == 1) bytes.insert(place, bytes.substr(below(most), 1 + below(200)));
        if (kind == 2) bytes.resize(bytes.size() / 2 + below(bytes.size() / 2));
        if (kind == 3) bytes.replace(place, 4, std::string(4, below(2) == 0 ? '\xFF' : '\x7F'));
        if (kind > 3) bytes[place] = static_cast<char>(random() >> 8);
    }
    return bytes;
}

using CameraHostileTest = CameraFixture;

}  // namespace

TEST_F(CameraHostileTest, HarmsNobodyInOneProcess) {
    // Takes a few seconds: each file is opened, and played for up to a second if it can be.
    const char* const files = getenv("FDSTREAM_HOSTILE_FILES");
    const int filesOfEachKind = files == nullptr ? 20 : std::stoi(files);
    int played = 0;
    for (const auto& [container, encoder] : kKinds) {
        // Of a picture that changes, so that there is something to be coded.
        writeClip(folder / "whole", container, encoder, {96, 80},
                  {40, 55, 70, 85, 100, 115, 130, 145, 160, 175, 190, 205});
        for (int seed = 0; seed < filesOfEachKind; ++seed) {
            SCOPED_TRACE(container + std::to_string(seed));
            std::ofstream(folder / "hostile", std::ios::binary)
                << corrupted(contentOf(folder / "whole"), static_cast<unsigned>(seed));
            camera::SourceOptions options = sourceOf("hostile", 1000);
            options.decodingThreads = 1;
            if (!play(options).empty()) continue;
            ++played;
            const std::clock_t end = std::clock() + CLOCKS_PER_SEC;  // of the processor's time
            // What breaks down gets errors at the frames' pace.
            for (int frame = 0; frame < 30 && std::clock() < end; ++frame)
                if (!askFor().isFilled) break;
            source.reset();
            configureAnew();
        }
        // After all of them a whole file plays.
        ASSERT_EQ(play(sourceOf("whole")), "");
        EXPECT_TRUE(askFor().isFilled);
    }
    EXPECT_GT(played, 0);
    rusage usage = {};
    getrusage(RUSAGE_SELF, &usage);
    EXPECT_LT(usage.ru_maxrss, 1 << 20) << "kilobytes";
}

}  // namespace testing_support
