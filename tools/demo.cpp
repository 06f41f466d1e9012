// Streams a clip from a provider in a process of its own, upright and turned, then kills a client
// and sees how the next one fares, then asks a provider that takes no requests; and shows what the
// clients got: pictures and figures.

#include <android/log.h>
#include <err.h>
#include <utils/StrongPointer.h>

#include <CLI/CLI.hpp>
#include <cstdint>
#include <cstdio>
#include <filesystem>
#include <memory>
#include <optional>
#include <string>
#include <system_error>
#include <utility>
#include <vector>

#include "clip.h"
#include "command_line.h"
#include "comparison.h"
#include "figures.h"
#include "holdings.h"
#include "host/log.h"
#include "kill_scene.h"
#include "nv12_file.h"
#include "picture.h"
#include "picture_folder.h"
#include "provider_process.h"
#include "run_program.h"
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
    "Examples (./run demo is this program, built if need be):\n"
    "  ./run demo                    draws a clip of 24 frames and streams it\n"
    "  ./run demo street.yuv         streams your clip: raw NV12, 1280x720, no header\n"
    "  ffmpeg -i street.mp4 -f rawvideo -pix_fmt nv12 -s 1280x720 street.yuv\n"
    "                                makes such a clip of a video\n"
    "  ./run demo --frames 100       asks for 100 frames; a clip then starts anew\n"
    "  ./run demo --buffers 1        one request in flight: latency without a queue\n"
    "  ./run demo --out pictures     puts the pictures somewhere else\n"
    "  ./run demo -v 2>log.txt       keeps what the library logs\n"
    "  ./run demo --faces            and two scenes in which a face is found\n"
    "  ./run demo --faces FILE       your own video, or /dev/video0\n"
    "\n"
    "The two sides alone: fdstream-provider --help, fdstream-client --help\n"
    "\n"
    "Exit code: 0 every frame came and was right, 1 one is missing or wrong,\n"
    "2 nothing was played.";

struct Options {
    std::optional<std::string> file;
    std::string out = "out/demo";
    uint32_t frames = 40;
    uint32_t buffers = 4;
    bool partial = false;
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
        "the middle of its stream, and last asks a provider that takes no requests.",
        "fdstream-demo");
    app.footer(kExamples);
    auto* const file = app.add_option("FILE", options.file,
                                      "clip to stream, which can be a pipe, or - for standard "
                                      "input; without it one is drawn")
                           ->type_name("");
    app.add_flag("--partial", options.partial, "leaves out a part of a frame at the clip's end")
        ->needs(file);
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
    return kit::parseCommandLine(app, argc, argv, kNotPlayed);
}

bool makeFolder(const fs::path& folder) {
    std::error_code error;
    fs::create_directories(folder, error);
    if (error) warnx("folder %s: %s", folder.c_str(), error.message().c_str());
    return !error;
}

/** Draws a clip where the pictures will be. Nothing after a sentence on stderr. */
std::optional<std::string> drawnClip(const Options& options) {
    const fs::path drawn = fs::path(options.out) / kDrawnName;
    // Not through a link, which could lead to a clip that somebody needs.
    std::error_code error;
    fs::remove(drawn, error);
    return tools::drawClip(drawn.c_str()) ? std::optional(drawn.string()) : std::nullopt;
}

/** Nothing after a sentence on stderr. */
std::optional<tools::Nv12File> openClip(const Options& options) {
    const std::optional<std::string> name = options.file ? options.file : drawnClip(options);
    if (!name) return std::nullopt;
    std::string problem;
    std::optional<tools::Nv12File> clip = tools::Nv12File::open(*name, problem, options.partial);
    const std::string words = tools::clipInWords(*name);
    if (!clip) {
        warnx("%s cannot be played: %s", words.c_str(), problem.c_str());
    } else if (options.file) {
        printf("%s is played as %s\n", words.c_str(), clip->description().c_str());
        fflush(stdout);
    }
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
    std::optional<tools::Comparison> comparison = tools::Comparison::with(clip, turned, true);
    const sp<IFDSession> session = provider.connect();
    if (!comparison || session == nullptr) return std::nullopt;

    Played played = {{}, tools::ContactSheet(options.frames), folder.make() && folder.clear()};
    direction.look = [&](const tools::Answer& answer, const tools::Figures& figures) {
        played.sheet.put(answer.frameNumber, answer.frame);
        played.saved &= folder.save(answer.frameNumber, answer.frame, direction.stream.size);
        return comparison->faultOf(answer, figures);
    };
    played.figures = tools::playStream(session, direction);
    return played;
}

/** Null after a sentence on stderr. */
std::unique_ptr<tools::ProviderProcess> startProvider(const Options& options, const fs::path& clip,
                                                      std::vector<std::string> arguments) {
    arguments.insert(arguments.end(), {"--partial", "--input", clip});
    if (options.verbose) arguments.insert(arguments.end(), {"--log", "debug"});
    return tools::ProviderProcess::start(arguments);
}

/** The scenes at providers that serve. */
struct Served {
    Played upright;
    Played turned;
    tools::Killed killed;
};

/** Nothing after a sentence on stderr. */
std::optional<Served> playServed(const Options& options, const fs::path& clip) {
    // Each scene with pictures has a provider of its own, which begins with the clip's first frame.
    auto provider = startProvider(options, clip, {});
    if (provider == nullptr) return std::nullopt;
    std::optional<Played> upright = playScene(*provider, options, clip, false);
    if (!upright || !provider->stop()) return std::nullopt;

    provider = startProvider(options, clip, {"--flipped"});
    if (provider == nullptr) return std::nullopt;
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
    if (!saved) return "All frames came as they are in the file, but not all pictures are written.";
    return "All frames came as they are in the file; the killed client left nothing behind.";
}

void printFigures(const Served& served, const tools::Figures& unserved, uint32_t buffers) {
    const tools::Killed& killed = served.killed;
    printf("\n");
    tools::printTable(
        {served.upright.figures, served.turned.figures, killed.before, killed.after, unserved});
    if (buffers > 1) {
        printf(
            "With %u buffers in flight and 20 frames a second that makes about %u ms;\n"
            "with --buffers 1 it waits for none.\n",
            buffers, buffers * 50);
    }
    printf("\n");
    printf("%-30s %11s %15s %7s\n", "the provider has", "descriptors", "buffer mappings",
           "threads");
    const auto printRow = [](const char* when, const kit::Holdings& held) {
        printf("%-30s %11d %15d %7d\n", when, held.descriptors, held.mappings, held.threads);
    };
    printRow("with client A, before the kill", killed.heldBefore);
    printRow("with client C, after the kill", killed.heldAfter);
}

int conclude(const Served& served, const tools::Figures& unserved, const Options& options) {
    printFigures(served, unserved, options.buffers);
    const bool saved = saveSheets(served.upright, served.turned, options.out);
    printPaths(options.out);

    const tools::Killed& killed = served.killed;
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
    const std::optional<tools::Nv12File> clip = openClip(options);
    if (!clip) return kNotPlayed;

    const std::optional<Served> served = playServed(options, clip->path());
    if (!served) return kNotRight;
    const std::optional<tools::Figures> unserved = playIdle();
    return unserved ? conclude(*served, *unserved, options) : kNotRight;
}

}  // namespace

int main(int argc, char** argv) {
    return kit::runProgram(run, argc, argv, kNotRight);
}
