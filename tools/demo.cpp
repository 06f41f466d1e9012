// Streams a clip through the session in this one process, upright and turned, then without anybody
// who takes the requests, and shows what the client got: pictures and figures.

#include <android/log.h>
#include <err.h>
#include <utils/StrongPointer.h>

#include <CLI/CLI.hpp>
#include <cstdint>
#include <cstdio>
#include <exception>
#include <filesystem>
#include <optional>
#include <string>
#include <system_error>
#include <vector>

#include "FDSession.h"
#include "FDSessionTest.h"
#include "clip.h"
#include "figures.h"
#include "host/log.h"
#include "host/properties.h"
#include "nv12_file.h"
#include "picture.h"
#include "scene.h"

namespace {

namespace fs = std::filesystem;
using android::sp;
using vendor::zoru::zoruprovider::fdstream::V1_0::IFDSession;
using vendor::zoru::zoruprovider::fdstream::V1_0::implementation::FDSession;
using vendor::zoru::zoruprovider::fdstream::V1_0::implementation::FDSessionTest;

constexpr int kAllRight = 0;
constexpr int kNotRight = 1;
constexpr int kNotPlayed = 2;

constexpr const char* kFlippedProperty = "vendor.zoru.flipped";
constexpr const char* kSourceName = FDSTREAM_TEST_INPUT;
constexpr const char* kDrawnName = "clip.yuv";
constexpr const char* kSideBySideName = "side-by-side.png";
constexpr uint32_t kUnservedRequests = 4;

constexpr const char* kExamples =
    "Examples:\n"
    "  fdstream-demo                      draws a clip of 24 frames and streams it\n"
    "  fdstream-demo street.yuv           streams your clip: raw NV12, 1280x720, no header\n"
    "  fdstream-demo --frames 100         asks for 100 frames; a clip starts again at its end\n"
    "  fdstream-demo --buffers 1          one request in flight: the latency without a queue\n"
    "  fdstream-demo --out pictures       puts the pictures somewhere else\n"
    "  fdstream-demo -v 2>log.txt         keeps what the library logs\n"
    "\n"
    "Exit code: 0 every frame came and was right, 1 one is missing or wrong, 2 nothing was played.";

struct Options {
    std::optional<std::string> file;
    std::string out = "out/demo";
    uint32_t frames = 40;
    uint32_t buffers = 4;
    bool verbose = false;
};

/** Nothing when the demo is to go on, else the exit code. */
std::optional<int> parse(int argc, char** argv, Options& options) {
    // More buffers than this wait longer than the second after which a request is given up.
    constexpr uint32_t kMostBuffers = 12;
    constexpr uint32_t kMostFrames = 1000;

    CLI::App app(
        "Streams a clip to a client in the same process, upright and turned by 180 "
        "degrees, compares every frame with the clip's and writes it as a picture.",
        "fdstream-demo");
    app.footer(kExamples);
    app.add_option("FILE", options.file, "clip to stream; without it one is drawn")->type_name("");
    app.add_option("--out", options.out, "folder for the pictures")
        ->type_name("DIR")
        ->capture_default_str();
    app.add_option("--frames", options.frames, "frames to ask for, upright and then turned")
        ->type_name("N")
        ->check(CLI::Range(uint32_t{1}, kMostFrames))
        ->capture_default_str();
    app.add_option("--buffers", options.buffers, "the client's buffers, all kept in flight")
        ->type_name("K")
        ->check(CLI::Range(uint32_t{1}, kMostBuffers))
        ->capture_default_str();
    app.add_flag("-v,--verbose", options.verbose, "let all that the library logs through");
    try {
        app.parse(argc, argv);
    } catch (const CLI::ParseError& error) {
        return app.exit(error) == 0 ? kAllRight : kNotPlayed;
    }
    return std::nullopt;
}

void say(const std::string& sentence) {
    warnx("%s", sentence.c_str());
}

std::optional<tools::Nv12File> openClip(const fs::path& path) {
    std::string problem;
    std::optional<tools::Nv12File> clip = tools::Nv12File::open(path, problem);
    if (!clip) {
        say(path.string() + " cannot be played: " + problem);
        return clip;
    }
    if (clip->tailBytes() != 0) {
        say("warning: " + path.string() + " ends with a part of a frame (" +
            std::to_string(clip->tailBytes()) + " bytes), which is left out");
    }
    return clip;
}

bool enterFolder(const fs::path& folder) {
    std::error_code error;
    fs::create_directories(folder, error);
    if (!error) fs::current_path(folder, error);
    if (error) say("folder " + folder.string() + ": " + error.message());
    return !error;
}

/** Puts the clip where the test frame source looks for it. */
bool linkClip(const fs::path& clip) {
    std::error_code error;
    const bool isThere = fs::is_regular_file(fs::symlink_status(kSourceName, error)) &&
                         fs::equivalent(clip, kSourceName, error);
    if (isThere) return true;
    fs::remove(kSourceName, error);
    if (!error) fs::create_symlink(clip, kSourceName, error);
    if (error)
        say(std::string(kSourceName) + " cannot be made a link to the clip: " + error.message());
    return !error;
}

std::optional<tools::Nv12File> openOwnClip(const std::string& file, const fs::path& out) {
    std::optional<tools::Nv12File> clip = openClip(file);
    if (!clip) return clip;
    // The link's own name may be what was given: it is followed to what it stands for.
    std::error_code error;
    const fs::path target = fs::canonical(file, error);
    if (error) {
        say(file + ": " + error.message());
        return std::nullopt;
    }
    if (!enterFolder(out) || !linkClip(target)) return std::nullopt;
    return clip;
}

std::optional<tools::Nv12File> openDrawnClip(const fs::path& out) {
    if (!enterFolder(out)) return std::nullopt;
    // Not through a link, which could lead to a clip that somebody needs.
    std::error_code error;
    fs::remove(kDrawnName, error);
    if (!tools::drawClip(kDrawnName) || !linkClip(kDrawnName)) return std::nullopt;
    return openClip(kDrawnName);
}

/** A test frame source that starts with the first frame of its file. */
class FrameSource {
public:
    FrameSource() : mSource(new FDSessionTest) {}
    FrameSource(const FrameSource&) = delete;
    FrameSource& operator=(const FrameSource&) = delete;
    ~FrameSource() {
        mSource->requestExit();
        mSource->join();
    }

private:
    const sp<FDSessionTest> mSource;
};

/** The property is set, or left alone, for the scope of this object. */
class FlippedProperty {
public:
    explicit FlippedProperty(bool set) {
        if (set) host::setProperty(kFlippedProperty, "true");
    }
    FlippedProperty(const FlippedProperty&) = delete;
    FlippedProperty& operator=(const FlippedProperty&) = delete;
    ~FlippedProperty() { host::clearProperty(kFlippedProperty); }
};

tools::Played playScene(const sp<IFDSession>& client, const tools::Direction& direction,
                        tools::Nv12File& clip) {
    const FlippedProperty flipped(direction.turned);
    const FrameSource source;
    return tools::playStream(client, direction, clip);
}

bool saveSheets(const tools::Played& upright, const tools::Played& turned) {
    const tools::Picture both = tools::sideBySide(upright.sheet.picture(), "UPRIGHT",
                                                  turned.sheet.picture(), "TURNED BY 180 DEGREES");
    bool saved = tools::writePng(upright.sheet.picture(), "upright.png");
    saved &= tools::writePng(turned.sheet.picture(), "turned.png");
    saved &= tools::writePng(both, kSideBySideName);
    return saved && upright.saved && turned.saved;
}

void printPaths(const fs::path& out) {
    printf("\n");
    printf("%s  upright on the left, turned on the right\n", (out / kSideBySideName).c_str());
    printf("%s, %s  one sheet for each scene\n", (out / "upright.png").c_str(),
           (out / "turned.png").c_str());
    printf("%s, %s  every frame in full size\n", (out / "upright/").c_str(),
           (out / "turned/").c_str());
}

bool isRight(const tools::Figures& streamed) {
    return streamed.delivered == streamed.wanted && streamed.wrong == 0;
}

const char* verdict(bool right, bool saved) {
    if (!right) return "NOT RIGHT: frames are missing or wrong, see above.";
    if (!saved) return "Every frame came and is right, but pictures could not be written.";
    return "Every frame came and is right, byte for byte.";
}

int play(const Options& options, tools::Nv12File& clip) {
    const sp<IFDSession> client = FDSession::getInstance()->getInterface();
    const tools::Played upright =
        playScene(client, {"upright", options.frames, options.buffers, false}, clip);
    const tools::Played turned =
        playScene(client, {"turned", options.frames, options.buffers, true}, clip);
    const tools::Figures unserved = tools::playUnserved(client, "nobody serves", kUnservedRequests);

    printf("\n");
    tools::printTable({upright.figures, turned.figures, unserved});
    const bool saved = saveSheets(upright, turned);
    printPaths(options.out);

    const bool right = isRight(upright.figures) && isRight(turned.figures) &&
                       unserved.failed() == kUnservedRequests && unserved.wrong == 0;
    printf("%s\n", verdict(right, saved));
    return right && saved ? kAllRight : kNotRight;
}

int run(int argc, char** argv) {
    Options options;
    if (const std::optional<int> code = parse(argc, argv, options)) return *code;
    host::setStderrLogPriority(options.verbose ? ANDROID_LOG_DEBUG : ANDROID_LOG_ERROR);
    std::optional<tools::Nv12File> clip =
        options.file ? openOwnClip(*options.file, options.out) : openDrawnClip(options.out);
    return clip ? play(options, *clip) : kNotPlayed;
}

}  // namespace

int main(int argc, char** argv) {
    try {
        return run(argc, argv);
    } catch (const std::exception& error) {  // of the standard library, when memory is short
        warnx("%s", error.what());
        return kNotRight;
    }
}
