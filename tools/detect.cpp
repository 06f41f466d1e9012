// A client in a process of its own that finds the faces in the newest frame of the stream.

#include <android/log.h>
#include <err.h>

#include <CLI/CLI.hpp>
#include <csignal>
#include <memory>
#include <optional>
#include <string>
#include <utility>

#include "command_line.h"
#include "detection.h"
#include "host/log.h"
#include "run_program.h"
#include "signals.h"
#include "stream_options.h"

namespace {

// One that is looked at, one that waits for that, and one that is under way.
constexpr uint32_t kLeastBuffers = 3;

constexpr const char* kExamples =
    "Examples:\n"
    "  fdstream-detect                       until Ctrl-C, then how it went\n"
    "  fdstream-detect --watch               a live view with a box on each face\n"
    "  fdstream-detect --y4m - | ffplay -    the same, in a window\n"
    "  fdstream-detect --follow --y4m - | ffplay -\n"
    "                                        and the camera's view follows the faces\n"
    "  fdstream-detect --json -              a line for each frame, for a script\n"
    "  fdstream-detect --frames 100 --png pictures\n"
    "                                        each frame that was looked at\n"
    "  fdstream-detect --factor 1.1 --least 24\n"
    "                                        smaller faces, and more that are none\n"
    "\n"
    "A provider has to be there: start fdstream-provider first, in another terminal,\n"
    "or at any time with --wait. It serves one client at a time: the last to come\n"
    "has the session. Only the newest frame is looked at, where it is; the others are\n"
    "skipped. A face counts from the second time in a row that it is found. Where it\n"
    "is in the camera's picture is known when the provider tells of each frame's\n"
    "view. With --follow the tracking mode is 1, and 0 from the end on; fdstream-ctl\n"
    "mode 0 stops the view before. The fields of the JSON stand in\n"
    "docs/client-json.md. A file has \".part\" behind its name until it is finished.\n"
    "\n"
    "Exit code: 0 all delivered, 1 some failed, missing, wrong or not written, 2 bad\n"
    "usage or no cascade, 3 the provider is gone or not there, 4 another client took\n"
    "the session.";

void declareSearch(CLI::App& app, camera::FaceSearch& search) {
    constexpr double kLeastFactor = 1.01;
    constexpr double kMostFactor = 10;
    constexpr int kMost = 10000;

    app.add_option("--cascade", search.cascade,
                   "what a face looks like, as OpenCV keeps it; without it "
                   "haarcascade_frontalface_default of Debian's opencv-data")
        ->type_name("FILE");
    app.add_option("--factor", search.factor, "from one size of faces to the next")
        ->type_name("F")
        ->check(CLI::Range(kLeastFactor, kMostFactor).description(""))
        ->capture_default_str();
    app.add_option("--neighbours", search.neighbours,
                   "detections beside each other that make a face")
        ->type_name("N")
        ->check(CLI::Range(0, kMost).description(""))
        ->capture_default_str();
    app.add_option("--least", search.least, "the smallest face's side in the frame, in pixels")
        ->type_name("PX")
        ->check(CLI::Range(1, kMost).description(""))
        ->capture_default_str();
    app.add_option("--threads", search.threads, "threads that look at one frame")
        ->type_name("N")
        ->check(CLI::Range(1, 64).description(""))
        ->capture_default_str();
}

void declare(CLI::App& app, tools::DetectOptions& options) {
    app.footer(kExamples);
    tools::declare(app, options.stream, kLeastBuffers);
    declareSearch(app, options.search);
    app.add_option("--json", options.outputs.json,
                   "writes a line for each frame, also for one that is skipped; - is the standard "
                   "output")
        ->type_name("FILE");
    app.add_option("--png", options.outputs.png,
                   "writes each frame that is looked at as a picture, with boxes")
        ->type_name("DIR");
    app.add_option("--y4m", options.outputs.y4m,
                   "writes them as YUV4MPEG2, with boxes; - is the standard output. The rate is "
                   "that of the first ten that are looked at, or 25")
        ->type_name("FILE");
    app.add_flag("--watch", options.outputs.watch, "shows them in the terminal, with boxes");
    auto* const follow =
        app.add_flag("--follow", options.follow, "has the camera's view follow the faces");
    app.add_option("--control", options.control,
                   "the socket of the provider's controls; without it that of the session with "
                   ".control behind it")
        ->type_name("PATH")
        ->needs(follow);
}

/** Nothing when the client is to go on, else the exit code. */
std::optional<int> parse(int argc, char** argv, tools::DetectOptions& options) {
    CLI::App app(
        "Streams frames from a provider in another process, and finds the faces in the newest.",
        "fdstream-detect");
    options.stream.frames = 0;
    declare(app, options);
    if (const auto code = kit::parseCommandLine(app, argc, argv, tools::kBadUsage)) return code;
    const std::string problem = options.outputs.problem();
    if (problem.empty()) return std::nullopt;
    warnx("%s", problem.c_str());
    return tools::kBadUsage;
}

int run(int argc, char** argv) {
    tools::DetectOptions options;
    if (const std::optional<int> code = parse(argc, argv, options)) return *code;
    kit::openStandardStreams();
    host::setStderrLogPriority(ANDROID_LOG_ERROR);
    // Before any thread of a library's.
    const kit::Signals signals = tools::signalsToTake();
    // A reader that goes away, or a limit of a file's size, is a failure to write like others.
    signal(SIGPIPE, SIG_IGN);
    signal(SIGXFSZ, SIG_IGN);
    std::string problem;
    auto detector = camera::FaceDetector::open(options.search, problem);
    if (detector == nullptr) {
        warnx("no faces can be found: %s", problem.c_str());
        return tools::kBadUsage;
    }
    return tools::Detection(options, std::move(detector), signals).run();
}

}  // namespace

int main(int argc, char** argv) {
    return kit::runProgram(run, argc, argv, tools::kSomeFailed);
}
