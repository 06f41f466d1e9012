// A client in a process of its own: streams frames from a provider and shows, keeps and judges
// them.

#include <android/log.h>
#include <err.h>

#include <CLI/CLI.hpp>
#include <chrono>
#include <cmath>
#include <csignal>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <optional>
#include <string>
#include <utility>

#include "command_line.h"
#include "comparison.h"
#include "figures.h"
#include "host/log.h"
#include "outputs.h"
#include "run_program.h"
#include "scene.h"
#include "signals.h"
#include "stream_client.h"
#include "stream_options.h"

namespace {

using android::sp;
using vendor::zoru::zoruprovider::fdstream::V1_0::IFDSession;

constexpr const char* kExamples =
    "Examples:\n"
    "  fdstream-client                            40 frames from the usual place\n"
    "  fdstream-client --watch --frames 0         a live view, until Ctrl-C\n"
    "  fdstream-client --png pictures             each as pictures/frame-NNN.png\n"
    "  fdstream-client --raw frames.yuv           packed NV12, which plays with\n"
    "      ffplay -f rawvideo -pixel_format nv12 -video_size 1280x720 frames.yuv\n"
    "  fdstream-client --frames 0 --y4m - | ffplay -   a live view in a window\n"
    "  fdstream-client --buffers 1 --json f.json  the latency without a queue\n"
    "  fdstream-client --fps 5                    asks for five frames a second\n"
    "  fdstream-client --compare clip.yuv         every frame has to be the file's,\n"
    "                                             and the next\n"
    "  fdstream-client --socket /run/me/cam.sock  another provider\n"
    "\n"
    "A provider has to be there: start fdstream-provider first, in another terminal,\n"
    "or at any time with --wait. It serves one client at a time: the last to come\n"
    "has the session. What the fields of the JSON are stands in docs/client-json.md.\n"
    "A file has \".part\" behind its name until it is finished.\n"
    "\n"
    "Exit code: 0 all delivered, 1 some failed, missing, wrong or not written, 2 bad\n"
    "usage, 3 the provider is gone or not there, 4 another client took the session.";

struct Options {
    tools::StreamOptions stream;
    double fps = 0;
    tools::OutputChoice outputs;
};

void declare(CLI::App& app, Options& options) {
    constexpr double kMostPerSecond = 1000;

    app.footer(kExamples);
    tools::declare(app, options.stream, 1);
    app.add_option("--fps", options.fps,
                   "requests a second; 0: as fast as buffers come back. The test source gives at "
                   "most 20")
        ->type_name("F")
        ->check(CLI::Range(0.0, kMostPerSecond).description(""))
        ->check([](const std::string& text) {
            return std::isnan(strtod(text.c_str(), nullptr)) ? text + " is no number"
                                                             : std::string();
        })
        ->capture_default_str();
    app.add_option("--png", options.outputs.png, "writes each frame as a picture")
        ->type_name("DIR");
    app.add_option("--raw", options.outputs.raw,
                   "writes the frames one after another, as packed NV12; - is the standard output. "
                   "An odd width or height has (W+1)/2 pairs in (H+1)/2 rows of chroma")
        ->type_name("FILE");
    app.add_option("--y4m", options.outputs.y4m,
                   "writes them as YUV4MPEG2, which players and encoders read; - is the standard "
                   "output. The rate is --fps or, without it, the sensor's by the first ten "
                   "frames, or 25")
        ->type_name("FILE");
    app.add_option("--json", options.outputs.json,
                   "writes the figures for a script; - is the standard output")
        ->type_name("FILE");
    auto* const compare = app.add_option("--compare", options.outputs.compare,
                                         "compares every frame with this clip's, which can come "
                                         "from a pipe or - too; the stream may start at any "
                                         "frame of it")
                              ->type_name("FILE");
    app.add_flag("--turned", options.outputs.turned,
                 "the frames have to come turned by 180 degrees")
        ->needs(compare);
    app.add_flag("--partial", options.outputs.partial,
                 "leaves out a part of a frame at that clip's end")
        ->needs(compare);
    app.add_flag("--watch", options.outputs.watch, "shows the stream in the terminal");
}

/** Nothing when the client is to go on, else the exit code. */
std::optional<int> parse(int argc, char** argv, Options& options) {
    CLI::App app("Streams frames from a provider in another process, and tells how it went.",
                 "fdstream-client");
    declare(app, options);
    if (const auto code = kit::parseCommandLine(app, argc, argv, tools::kBadUsage)) return code;
    options.outputs.perSecond = options.fps;
    const std::string problem = options.outputs.problem(options.stream.frameSize());
    if (problem.empty()) return std::nullopt;
    warnx("%s", problem.c_str());
    return tools::kBadUsage;
}

tools::Direction directionOf(const Options& options) {
    tools::Direction direction;
    direction.name = "client";
    direction.stream = options.stream.settings();
    direction.stream.requestsPerSecond = options.fps;
    direction.hushed = options.outputs.watch;
    return direction;
}

tools::Figures stream(const Options& options, const tools::Direction& direction,
                      const kit::Signals& signals) {
    const sp<IFDSession> session = tools::findProvider(options.stream, signals);
    if (session != nullptr) return tools::playStream(session, direction);
    tools::Figures figures;
    figures.ending = tools::Ending::Gone;
    return figures;
}

int run(int argc, char** argv) {
    Options options;
    if (const std::optional<int> code = parse(argc, argv, options)) return *code;
    kit::openStandardStreams();
    host::setStderrLogPriority(ANDROID_LOG_ERROR);
    // Before signals are blocked: a pipe may never end.
    std::optional<tools::Comparison> comparison;
    if (const tools::OutputChoice& choice = options.outputs; choice.compare) {
        comparison = tools::Comparison::with(*choice.compare, choice.turned, choice.partial);
        if (!comparison) return tools::kBadUsage;
    }
    const kit::Signals signals = tools::signalsToTake();
    // A reader that goes away, or a limit of a file's size, is a failure to write like others.
    signal(SIGPIPE, SIG_IGN);
    signal(SIGXFSZ, SIG_IGN);

    tools::Direction direction = directionOf(options);
    direction.interrupted = [&] { return signals.poll() != 0; };
    tools::Outputs outputs(options.outputs, direction.stream.size, std::move(comparison),
                           direction.interrupted);
    direction.look = [&](const tools::Answer& answer, const tools::Figures& figures) {
        return outputs.take(answer, figures);
    };
    direction.lookAway = [&](const tools::Answer& /*answer*/) { outputs.takeUnfilled(); };
    direction.broken = [&] { return outputs.isBroken(); };
    direction.connectAnew = [&] {
        outputs.breakOff();
        return tools::findProvider(options.stream, signals);
    };
    direction.curtain = [&] { outputs.stopWatching(); };
    direction.talk = outputs.talk();
    if (!outputs.open()) return tools::kBadUsage;

    const tools::Figures figures = stream(options, direction, signals);
    const bool isAlone = outputs.hasNoReader();
    if (!figures.scene.empty() && !isAlone) tools::printTable({figures}, outputs.talk());
    const bool saved = outputs.finish(figures, direction.stream) || isAlone;
    const bool printed = kit::finishStandardOutput();
    const int code = isAlone ? tools::kAllDelivered : tools::codeOf(figures);
    return code == tools::kAllDelivered && !(saved && printed) ? tools::kSomeFailed : code;
}

}  // namespace

int main(int argc, char** argv) {
    return kit::runProgram(run, argc, argv, tools::kSomeFailed);
}
