// Damaged files: a client over the socket is served by one camera after another, each with a file
// that was corrupted in a way of its own. FDSTREAM_HOSTILE_FILES says how many of each kind.

#include <gtest/gtest.h>
#include <sys/resource.h>

#include <cstdlib>
#include <ctime>
#include <fstream>
#include <iterator>
#include <random>
#include <string>

#include "host/channel.h"
#include "support/camera_fixture.h"
#include "support/clip_writer.h"
#include "support/run_shell.h"

namespace testing_support {

namespace {

int filesOfEachKind() {
    const char* const count = getenv("FDSTREAM_HOSTILE_FILES");
    return count == nullptr ? 20 : std::stoi(count);
}

double processorSeconds() {
    timespec time = {};
    clock_gettime(CLOCK_PROCESS_CPUTIME_ID, &time);
    return static_cast<double>(time.tv_sec) + static_cast<double>(time.tv_nsec) / 1e9;
}

/** Bytes changed, cut out, doubled or cut off: most of it near the beginning, where sizes are. */
std::string corrupted(std::string bytes, unsigned seed) {
    std::minstd_rand random(seed * 2654435761U + 1);
    const auto below = [&](size_t limit) { return random() / 7 % limit; };
    const auto place = [&] {
        return below(below(3) == 0 ? std::min<size_t>(bytes.size(), 1024) : bytes.size());
    };
    for (size_t left = 1 + below(12); left > 0 && bytes.size() > 64; --left) {
        switch (below(8)) {
            case 0:
                bytes.erase(place(), 1 + below(200));
                break;
            case 1:
                bytes.insert(place(), bytes.substr(place(), 1 + below(200)));
                break;
            case 2:
                bytes.resize(bytes.size() / 2 + below(bytes.size() / 2));
                break;
            case 3:
                bytes.replace(place(), 4, std::string(4, below(2) == 0 ? '\xFF' : '\x7F'));
                break;
            default:
                bytes[place()] = static_cast<char>(random() >> 8);
        }
    }
    return bytes;
}

/** Of a picture that changes, so that there is something to be coded. */
std::vector<ClipFrame> changing() {
    std::vector<ClipFrame> frames(12);
    for (int i = 0; i < 12; ++i)
        frames[static_cast<size_t>(i)] = {{96, 80}, 40 + 15 * i};
    return frames;
}

}  // namespace

class CameraHostileTest : public CameraFixture {
protected:
    CameraHostileTest() {
        for (const auto& [container, encoder] : kKinds)
            writeClip(folder / container, container, encoder, changing());
    }
    std::string clip(const std::string& container) const {
        std::ifstream file(folder / container, std::ios::binary);
        return {std::istreambuf_iterator<char>(file), {}};
    }
    std::string corruptedAt(const std::string& container, unsigned seed) const {
        std::string path = folder / "hostile";
        std::ofstream(path, std::ios::binary) << corrupted(clip(container), seed);
        return path;
    }

    static constexpr std::pair<const char*, const char*> kKinds[] = {
        {"mp4", "mpeg4"}, {"matroska", "mjpeg"}, {"avi", "mpeg4"}};
};

TEST_F(CameraHostileTest, HarmsNobodyInOneProcess) {
    // Takes a few seconds: each file is opened, and played for up to a second if it can be.
    std::string problem;
    const auto server = host::Server::listen(folder / "socket", client, problem);
    ASSERT_NE(server, nullptr) << problem;
    connect(folder / "socket");
    int played = 0;
    for (const auto& [container, encoder] : kKinds) {
        for (int seed = 0; seed < filesOfEachKind(); ++seed) {
            SCOPED_TRACE(container + std::to_string(seed));
            corruptedAt(container, static_cast<unsigned>(seed));
            camera::SourceOptions options = sourceOf("hostile");
            options.decodingThreads = 1;
            if (!play(options).empty()) continue;
            ++played;
            const double begin = processorSeconds();
            // What breaks down gets errors at the frames' pace.
            for (int frame = 0; frame < 30 && processorSeconds() - begin < 1; ++frame)
                if (!askFor().isFilled) break;
            source.reset();
            configureAnew();
        }
    }
    EXPECT_GT(played, 0);
    // After all of them a whole file plays.
    ASSERT_EQ(play(sourceOf("mp4")), "");
    EXPECT_TRUE(askFor().isFilled);
    rusage usage = {};
    getrusage(RUSAGE_SELF, &usage);
    EXPECT_LT(usage.ru_maxrss, 1 << 20) << "kilobytes";
}

TEST_F(CameraHostileTest, LeavesTheProgramWithASentenceOrServing) {
    // Takes a second or two: a process for each.
    for (unsigned seed = 0; seed < 20; ++seed) {
        const auto& [container, encoder] = kKinds[seed % 3];
        const auto tool = startShell("exec " PROVIDER_TOOL " --fps 0 --socket " + folder / "tool" +
                                     " --input " + corruptedAt(container, seed));
        const std::string line = tool->nextLine(kPatience).value_or("");
        const bool serves = line.rfind("listening on", 0) == 0;
        if (serves) {
            runShell("exec " CLIENT_TOOL " --frames 10 --size 64x48 --socket " + folder / "tool");
            tool->signal(SIGTERM);
        } else {
            EXPECT_NE(line.find("cannot be played: "), std::string::npos) << line;
        }
        EXPECT_EQ(tool->exitCode(kPatience), serves ? 0 : 2) << container << seed;
    }
}

}  // namespace testing_support
