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
#include "default_socket.h"
#include "figures.h"
#include "host/channel.h"
#include "host/log.h"
#include "outputs.h"
#include "run_program.h"
#include "scene.h"
#include "signals.h"
#include "stream_client.h"

namespace {

using android::sp;
using vendor::zoru::zoruprovider::fdstream::V1_0::IFDSession;

constexpr int kAllDelivered = 0;
constexpr int kSomeFailed = 1;
constexpr int kBadUsage = 2;
constexpr int kProviderGone = 3;
constexpr int kTakenOver = 4;

constexpr const char* kExamples =
    "Examples:\n"
    "  fdstream-client                            40 frames from the usual place\n"
    "  fdstream-client --watch --frames 0         a live view, until Ctrl-C\n"
    "  fdstream-client --png pictures             each as pictures/frame-NNN.png\n"
    "  fdstream-client --raw frames.yuv           packed NV12, which plays with\n"
    "      ffplay -f rawvideo -pixel_format nv12 -video_size 1280x720 frames.yuv\n"
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

constexpr const char* kSizeHelp =
    "the stream's size, both numbers even. The test source knows 1280x720 only: a smaller size gets "
    "the file's bytes laid out at its own width, and one that needs more than 1,382,400 bytes comes "
    "back unfilled, which is counted as wrong";

struct Options {
    std::optional<std::string> socket;
    bool wait = false;
    uint32_t frames = 40;
    uint32_t buffers = 4;
    double fps = 0;
    std::string size = "1280x720";
    tools::OutputChoice outputs;
};

/** Nothing when this is not WxH with even numbers that can be. */
std::optional<kit::FrameSize> sizeOf(const std::string& text) {
    constexpr int kMost = 8192;
    kit::FrameSize size = {};
    char rest = 0;
    // NOLINTNEXTLINE(cert-err34-c): numbers that are too large are out of range below
    const int read = sscanf(text.c_str(), "%5dx%5d%c", &size.width, &size.height, &rest);
    const auto fits = [](int side) { return side >= 2 && side <= kMost && side % 2 == 0; };
    return read == 2 && fits(size.width) && fits(size.height) ? std::optional(size) : std::nullopt;
}

void declare(CLI::App& app, Options& options) {
    constexpr uint32_t kMostBuffers = 32;
    constexpr double kMostPerSecond = 1000;

    app.footer(kExamples);
    app.add_option("--socket", options.socket,
                   std::string("the provider's socket; without it ") + kit::kDefaultSocketInWords)
        ->type_name("PATH");
    app.add_flag("--wait", options.wait, "waits until a provider is there");
    app.add_option("--frames", options.frames, "frames to ask for; 0: until interrupted")
        ->type_name("N")
        ->capture_default_str();
    app.add_option("--buffers", options.buffers,
                   "the client's buffers, 1 to 32: the most that is in flight")
        ->type_name("K")
        ->check(CLI::Range(uint32_t{1}, kMostBuffers).description(""))
        ->capture_default_str();
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
    app.add_option("--size", options.size, kSizeHelp)
        ->type_name("WxH")
        ->check(CLI::Validator(
            [](std::string& text) {
                return sizeOf(text) ? std::string()
                                    : text +
                                          " is no size: two even numbers from 2 to 8192 with an "
                                          "x between them";
            },
            ""))
        ->capture_default_str();
    app.add_option("--png", options.outputs.png, "writes each frame as a picture")
        ->type_name("DIR");
    app.add_option("--raw", options.outputs.raw,
                   "writes the frames one after another, as packed NV12; - is the standard output")
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
    if (const auto code = kit::parseCommandLine(app, argc, argv, kBadUsage)) return code;
    const std::string problem = options.outputs.problem(*sizeOf(options.size));
    if (problem.empty()) return std::nullopt;
    warnx("%s", problem.c_str());
    return kBadUsage;
}

/** SIGHUP ends a stream in order, but for a program that was started to survive it. */
kit::Signals signalsToTake() {
    struct sigaction hangup = {};
    sigaction(SIGHUP, nullptr, &hangup);
    return hangup.sa_handler == SIG_IGN ? kit::Signals({SIGINT, SIGTERM})
                                        : kit::Signals({SIGINT, SIGTERM, SIGHUP});
}

/** Null after a sentence on stderr. */
sp<IFDSession> findProvider(const Options& options, const kit::Signals& signals) {
    constexpr std::chrono::milliseconds kLook(200);
    std::string problem;
    const std::optional<std::string> socket =
        options.socket ? options.socket : kit::defaultSocket(problem);
    if (socket && options.wait) warnx("waiting for a provider at %s", socket->c_str());
    const std::chrono::milliseconds patience = options.wait ? kLook : kLook * 0;
    sp<IFDSession> session;
    bool mayCome = socket.has_value();
    while (session == nullptr && mayCome) {
        const auto start = tools::Clock::now();
        session = host::connectWithin<IFDSession>(*socket, patience, problem);
        // What is not waited for, such as a path that is too long, does not come.
        const bool waited = tools::Clock::now() - start >= patience;
        mayCome = options.wait && waited && signals.poll() == 0;
    }
    if (session == nullptr) {
        warnx("there is no provider: %s", problem.c_str());
        if (!options.wait)
            warnx("start one with fdstream-provider in another terminal, or wait with --wait");
    }
    return session;
}

tools::Direction directionOf(const Options& options) {
    tools::Direction direction;
    direction.name = "client";
    direction.stream.frames = options.frames == 0 ? UINT32_MAX : options.frames;
    direction.stream.buffers = options.buffers;
    direction.stream.size = *sizeOf(options.size);
    direction.stream.requestsPerSecond = options.fps;
    direction.hushed = options.outputs.watch;
    return direction;
}

tools::Figures stream(const Options& options, const tools::Direction& direction,
                      const kit::Signals& signals) {
    const sp<IFDSession> session = findProvider(options, signals);
    if (session != nullptr) return tools::playStream(session, direction);
    tools::Figures figures;
    figures.ending = tools::Ending::Gone;
    return figures;
}

int codeOf(const tools::Figures& figures) {
    if (figures.ending == tools::Ending::Gone) return kProviderGone;
    if (figures.ending == tools::Ending::TakenOver) return kTakenOver;
    const bool atEnd =
        figures.ending == tools::Ending::Complete || figures.ending == tools::Ending::Interrupted;
    const bool right = figures.failed() == 0 && figures.missing() == 0 && figures.wrong == 0;
    return atEnd && right ? kAllDelivered : kSomeFailed;
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
        if (!comparison) return kBadUsage;
    }
    const kit::Signals signals = signalsToTake();
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
    direction.broken = [&] { return outputs.isBroken(); };
    direction.connectAnew = [&] {
        outputs.breakOff();
        return findProvider(options, signals);
    };
    direction.curtain = [&] { outputs.stopWatching(); };
    direction.talk = outputs.talk();
    if (!outputs.open()) return kBadUsage;

    const tools::Figures figures = stream(options, direction, signals);
    if (!figures.scene.empty()) tools::printTable({figures}, outputs.talk());
    const bool saved = outputs.finish(figures, direction.stream);
    const bool printed = kit::finishStandardOutput();
    const int code = codeOf(figures);
    return code == kAllDelivered && !(saved && printed) ? kSomeFailed : code;
}

}  // namespace

int main(int argc, char** argv) {
    return kit::runProgram(run, argc, argv, kSomeFailed);
}
