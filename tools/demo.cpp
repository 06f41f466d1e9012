// Streams a clip from a provider in a process of its own, upright and turned, then from one that
// takes no requests, then kills a client and sees how the next one fares; and shows what the
// clients got: pictures and figures.

#include <android/log.h>
#include <err.h>
#include <utils/StrongPointer.h>

#include <CLI/CLI.hpp>
#include <cstdint>
#include <cstdio>
#include <exception>
#include <filesystem>
#include <memory>
#include <optional>
#include <string>
#include <system_error>
#include <utility>
#include <vector>

#include "clip.h"
#include "comparison.h"
#include "figures.h"
#include "holdings.h"
#include "host/log.h"
#include "kill_scene.h"
#include "nv12_file.h"
#include "picture.h"
#include "picture_folder.h"
#include "provider_process.h"
#include "scene.h"

namespace {

namespace fs = std::filesystem;
using android::sp;
using vendor::zoru::zoruprovider::fdstream::V1_0::IFDSession;

constexpr int kAllRight = 0;
constexpr int kNotRight = 1;
constexpr int kNotPlayed = 2;

constexpr const char* kDrawnName = "demo-clip.yuv";
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
    "The two sides alone: fdstream-provider --help, fdstream-client --help\n"
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
        "Streams a clip from a provider in another process, upright and turned by 180 degrees, "
        "compares every frame with the clip's and writes it as a picture; then kills a client in "
        "the middle of its stream.",
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

bool makeFolder(const fs::path& folder) {
    std::error_code error;
    fs::create_directories(folder, error);
    if (error) warnx("folder %s: %s", folder.c_str(), error.message().c_str());
    return !error;
}

/** The path of the clip to play, which is drawn if need be. Nothing after a sentence on stderr. */
std::optional<fs::path> findClip(const Options& options) {
    if (options.file) return *options.file;
    const fs::path drawn = fs::path(options.out) / kDrawnName;
    // Not through a link, which could lead to a clip that somebody needs.
    std::error_code error;
    fs::remove(drawn, error);
    return tools::drawClip(drawn.c_str()) ? std::optional(drawn) : std::nullopt;
}

/** Nothing after a sentence on stderr. */
std::optional<tools::Nv12File> openClip(const fs::path& path) {
    std::string problem;
    std::optional<tools::Nv12File> clip = tools::Nv12File::open(path, problem);
    if (!clip) warnx("%s cannot be played: %s", path.c_str(), problem.c_str());
    return clip;
}

/** A streaming scene that was played. */
struct Played {
    tools::Figures figures;
    tools::ContactSheet sheet;
    bool saved;  ///< whether every picture is on the disk
};

tools::Direction directionOf(const Options& options, const std::string& name) {
    tools::Direction direction;
    direction.name = name;
    direction.stream.frames = options.frames;
    direction.stream.buffers = options.buffers;
    return direction;
}

/** Nothing after a sentence on stderr. */
std::optional<Played> playScene(const tools::ProviderProcess& provider, const Options& options,
                                const fs::path& clip, bool turned) {
    tools::Direction direction = directionOf(options, turned ? "turned" : "upright");
    const tools::PictureFolder folder(fs::path(options.out) / direction.name);
    std::optional<tools::Nv12File> file = openClip(clip);
    const sp<IFDSession> session = provider.connect();
    if (!file || session == nullptr) return std::nullopt;

    Played played = {{}, tools::ContactSheet(options.frames), folder.make() && folder.clear()};
    tools::Comparison comparison(std::move(*file), turned);
    direction.look = [&](const tools::Answer& answer, const tools::Figures& figures) {
        played.sheet.put(answer.frameNumber, answer.frame);
        played.saved &= folder.save(answer.frameNumber, answer.frame, direction.stream.size);
        return comparison.faultOf(answer, figures);
    };
    played.figures = tools::playStream(session, direction);
    return played;
}

/** The scenes at the provider that serves. */
struct Served {
    Played upright;
    Played turned;
    tools::Killed killed;
};

/** Nothing after a sentence on stderr. */
std::optional<Served> playServed(const Options& options, const fs::path& clip) {
    std::vector<std::string> arguments = {"--input", clip};
    if (options.verbose) arguments.insert(arguments.end(), {"--log", "debug"});
    const auto provider = tools::ProviderProcess::start(arguments);
    if (provider == nullptr) return std::nullopt;

    std::optional<Played> upright = playScene(*provider, options, clip, false);
    if (!upright || !provider->flip()) return std::nullopt;
    std::optional<Played> turned = playScene(*provider, options, clip, true);
    if (!turned || !provider->flip()) return std::nullopt;
    std::optional<tools::Killed> killed =
        tools::playKilled(*provider, options.frames, options.buffers, clip);
    if (!killed || !provider->stop()) return std::nullopt;
    return Served{std::move(*upright), std::move(*turned), std::move(*killed)};
}

/** The scene at a provider that takes no requests. Nothing after a sentence on stderr. */
std::optional<tools::Figures> playIdle() {
    const auto provider = tools::ProviderProcess::start({"--idle"});
    if (provider == nullptr) return std::nullopt;
    const sp<IFDSession> session = provider->connect();
    if (session == nullptr) return std::nullopt;
    tools::Figures figures = tools::playUnserved(session, "nobody serves", kUnservedRequests);
    return provider->stop() ? std::optional(std::move(figures)) : std::nullopt;
}

bool saveSheets(const Played& upright, const Played& turned, const fs::path& out) {
    const tools::Picture both = tools::sideBySide(upright.sheet.picture(), "UPRIGHT",
                                                  turned.sheet.picture(), "TURNED BY 180 DEGREES");
    bool saved = tools::writePng(upright.sheet.picture(), out / "upright.png");
    saved &= tools::writePng(turned.sheet.picture(), out / "turned.png");
    saved &= tools::writePng(both, out / kSideBySideName);
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
    return streamed.ending == tools::Ending::Complete && streamed.delivered == streamed.wanted &&
           streamed.wrong == 0;
}

const char* verdict(bool right, bool holds, bool saved) {
    if (!right) return "NOT RIGHT: frames are missing or wrong, see above.";
    if (!holds) return "NOT RIGHT: the provider does not hold the same after a client was killed.";
    if (!saved) return "Every frame came and is right, but pictures could not be written.";
    return "Every frame came and is right, byte for byte; the killed client left nothing behind.";
}

int conclude(const Served& served, const tools::Figures& unserved, const Options& options) {
    const tools::Killed& killed = served.killed;
    printf("\n");
    tools::printTable(
        {served.upright.figures, served.turned.figures, killed.before, killed.after, unserved});
    printf("\n");
    tools::printHoldings({{"with the client before a kill", killed.heldBefore},
                          {"with the client after a kill", killed.heldAfter}});
    const bool saved = saveSheets(served.upright, served.turned, options.out);
    printPaths(options.out);

    const bool right = isRight(served.upright.figures) && isRight(served.turned.figures) &&
                       isRight(killed.before) && isRight(killed.after) &&
                       unserved.failed() == kUnservedRequests && unserved.wrong == 0;
    const bool holds = killed.heldBefore == killed.heldAfter;
    printf("%s\n", verdict(right, holds, saved));
    return right && holds && saved ? kAllRight : kNotRight;
}

int run(int argc, char** argv) {
    Options options;
    if (const std::optional<int> code = parse(argc, argv, options)) return *code;
    host::setStderrLogPriority(options.verbose ? ANDROID_LOG_DEBUG : ANDROID_LOG_ERROR);

    if (!makeFolder(options.out)) return kNotPlayed;
    const std::optional<fs::path> clip = findClip(options);
    if (!clip || !openClip(*clip)) return kNotPlayed;

    const std::optional<Served> served = playServed(options, *clip);
    if (!served) return kNotRight;
    const std::optional<tools::Figures> unserved = playIdle();
    return unserved ? conclude(*served, *unserved, options) : kNotRight;
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
