// A client in a process of its own: streams frames from a provider and shows, keeps and judges
// them.

#include <android/log.h>
#include <err.h>

#include <CLI/CLI.hpp>
#include <algorithm>
#include <cmath>
#include <csignal>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <exception>
#include <filesystem>
#include <fstream>
#include <optional>
#include <string>

#include "comparison.h"
#include "default_socket.h"
#include "figures.h"
#include "host/channel.h"
#include "host/log.h"
#include "nv12_file.h"
#include "picture_folder.h"
#include "scene.h"
#include "signals.h"
#include "stream_client.h"
#include "terminal_view.h"

namespace {

using android::sp;
using vendor::zoru::zoruprovider::fdstream::V1_0::IFDSession;

constexpr int kAllDelivered = 0;
constexpr int kSomeFailed = 1;
constexpr int kBadUsage = 2;
constexpr int kProviderGone = 3;

constexpr const char* kExamples =
    "Examples:\n"
    "  fdstream-client                            40 frames from the provider's usual place\n"
    "  fdstream-client --watch --frames 0         a live view in the terminal, until Ctrl-C\n"
    "  fdstream-client --png pictures             each frame as pictures/frame-NNN.png\n"
    "  fdstream-client --raw frames.yuv           packed NV12, which plays with\n"
    "      ffplay -f rawvideo -pixel_format nv12 -video_size 1280x720 frames.yuv\n"
    "  fdstream-client --buffers 1 --json f.json  the latency without a queue, for a script\n"
    "  fdstream-client --fps 5                    asks for five frames a second\n"
    "  fdstream-client --compare clip.yuv         every frame has to be the file's, and the next\n"
    "  fdstream-client --socket /run/me/cam.sock  another provider\n"
    "\n"
    "A provider has to be there: start fdstream-provider first, in another terminal.\n"
    "\n"
    "Exit code: 0 all delivered, 1 some failed, missing or wrong, 2 bad usage, 3 the provider is\n"
    "gone or not there.";

constexpr const char* kSizeHelp =
    "the stream's size, both numbers even. The test source knows 1280x720 only: a smaller size gets "
    "the file's bytes laid out at its own width, and one that needs more than 1,382,400 bytes comes "
    "back unfilled, which is counted as wrong";

struct Options {
    std::optional<std::string> socket;
    uint32_t frames = 40;
    uint32_t buffers = 4;
    double fps = 0;
    std::string size = "1280x720";
    std::optional<std::string> png;
    std::optional<std::string> raw;
    std::optional<std::string> json;
    std::optional<std::string> compare;
    bool turned = false;
    bool watch = false;
};

/** Nothing when this is not WxH with even numbers that can be. */
std::optional<tools::FrameSize> sizeOf(const std::string& text) {
    constexpr int kMost = 8192;
    tools::FrameSize size = {};
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
                   std::string("the provider's socket; without it ") + tools::kDefaultSocketInWords)
        ->type_name("PATH");
    app.add_option("--frames", options.frames, "frames to ask for; 0: until interrupted")
        ->type_name("N")
        ->capture_default_str();
    app.add_option("--buffers", options.buffers, "the client's buffers, the most that is in flight")
        ->type_name("K")
        ->check(CLI::Range(uint32_t{1}, kMostBuffers))
        ->capture_default_str();
    app.add_option("--fps", options.fps,
                   "requests a second; 0: as fast as buffers come back. The test source gives at "
                   "most 20")
        ->type_name("F")
        ->check(CLI::Range(0.0, kMostPerSecond))
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
    app.add_option("--png", options.png, "writes each frame as a picture")->type_name("DIR");
    app.add_option("--raw", options.raw, "writes the frames one after another, as packed NV12")
        ->type_name("FILE");
    app.add_option("--json", options.json, "writes the figures for a script")->type_name("FILE");
    auto* const compare = app.add_option("--compare", options.compare,
                                         "compares every frame with this clip's; the stream may "
                                         "start at any frame of it")
                              ->type_name("FILE");
    app.add_flag("--turned", options.turned, "the frames have to come turned by 180 degrees")
        ->needs(compare);
    app.add_flag("--watch", options.watch, "shows the stream in the terminal");
}

/** Nothing when the client is to go on, else the exit code. */
std::optional<int> parse(int argc, char** argv, Options& options) {
    CLI::App app("Streams frames from a provider in another process, and tells how it went.",
                 "fdstream-client");
    declare(app, options);
    try {
        app.parse(argc, argv);
    } catch (const CLI::ParseError& error) {
        return app.exit(error) == 0 ? kAllDelivered : kBadUsage;
    }
    std::string problem;
    const tools::FrameSize size = *sizeOf(options.size);
    if (options.watch && !tools::TerminalView::isPossible()) {
        problem = "--watch needs a terminal to show the stream in";
    } else if (options.compare && size.bytes() != tools::kFrameBytes) {
        problem = "--compare goes with the clip's own size, 1280x720";
    }
    if (problem.empty()) return std::nullopt;
    warnx("%s", problem.c_str());
    return kBadUsage;
}

bool isUnfilled(const tools::Frame& frame) {
    return std::all_of(frame.begin(), frame.end(),
                       [](uint8_t byte) { return byte == tools::kNotWritten; });
}

/** All that is done with the pictures. */
class Outputs {
public:
    explicit Outputs(const Options& options)
        : mSize(*sizeOf(options.size)), mWatch(options.watch) {}

    /** False after a sentence on stderr. */
    bool open(const Options& options) {
        if (options.png) mFolder.emplace(*options.png);
        if (mFolder && !mFolder->make()) return false;
        if (options.raw) {
            mRaw.open(*options.raw, std::ios::binary);
            if (!mRaw) {
                warn("%s cannot be written", options.raw->c_str());
                return false;
            }
        }
        // Found out now and not at the end of a long stream.
        if (options.json && !std::ofstream(*options.json, std::ios::app)) {
            warn("%s cannot be written", options.json->c_str());
            return false;
        }
        if (!options.compare) return true;
        std::string problem;
        std::optional<tools::Nv12File> clip = tools::Nv12File::open(*options.compare, problem);
        if (clip) {
            mComparison.emplace(std::move(*clip), options.turned);
        } else {
            warnx("%s cannot be compared with: %s", options.compare->c_str(), problem.c_str());
        }
        return clip.has_value();
    }

    void stopWatching() { mView.reset(); }

    /** In words, what is wrong with the picture; empty when nothing is. */
    std::string take(const tools::Answer& answer, const tools::Figures& figures) {
        if (mFolder) mSaved &= mFolder->save(answer.frameNumber, answer.frame, mSize);
        if (mRaw.is_open()) {
            mRaw.write(reinterpret_cast<const char*>(answer.frame.data()),
                       static_cast<std::streamsize>(answer.frame.size()));
        }
        if (mWatch && !mView) mView.emplace(mSize);
        if (mView) mView->show(answer, figures);
        if (isUnfilled(answer.frame)) return "came back as delivered, but unfilled";
        return mComparison ? mComparison->faultOf(answer, figures) : std::string();
    }

    /** Whether all is on the disk; if not, after a sentence on stderr. */
    bool finish() {
        if (mRaw.is_open() && !mRaw.flush()) {
            warnx("the raw file could not be written to its end");
            return false;
        }
        return mSaved;
    }

private:
    const tools::FrameSize mSize;
    const bool mWatch;
    std::optional<tools::PictureFolder> mFolder;
    std::ofstream mRaw;
    std::optional<tools::Comparison> mComparison;
    std::optional<tools::TerminalView> mView;
    bool mSaved = true;
};

tools::Direction directionOf(const Options& options) {
    tools::Direction direction;
    direction.name = "client";
    direction.stream.frames = options.frames == 0 ? UINT32_MAX : options.frames;
    direction.stream.buffers = options.buffers;
    direction.stream.size = *sizeOf(options.size);
    direction.stream.requestsPerSecond = options.fps;
    direction.hushed = options.watch;
    return direction;
}

tools::Figures stream(const sp<IFDSession>& session, const Options& options, Outputs& outputs,
                      const tools::Signals& signals) {
    tools::Direction direction = directionOf(options);
    direction.look = [&](const tools::Answer& answer, const tools::Figures& figures) {
        return outputs.take(answer, figures);
    };
    direction.interrupted = [&] { return signals.poll() != 0; };
    direction.curtain = [&] { outputs.stopWatching(); };
    return tools::playStream(session, direction);
}

int codeOf(const tools::Figures& figures, bool endless) {
    if (figures.ending == tools::Ending::Gone) return kProviderGone;
    const bool atEnd = figures.ending == tools::Ending::Complete ||
                       (endless && figures.ending == tools::Ending::Interrupted);
    const bool right = figures.failed() == 0 && figures.missing() == 0 && figures.wrong == 0;
    return atEnd && right ? kAllDelivered : kSomeFailed;
}

int run(int argc, char** argv) {
    Options options;
    if (const std::optional<int> code = parse(argc, argv, options)) return *code;
    tools::openStandardStreams();
    host::setStderrLogPriority(ANDROID_LOG_ERROR);
    const tools::Signals signals({SIGINT, SIGTERM});
    Outputs outputs(options);
    if (!outputs.open(options)) return kBadUsage;

    std::string problem;
    const std::optional<std::string> socket =
        options.socket ? options.socket : tools::defaultSocket(problem);
    const sp<IFDSession> session =
        socket ? host::connect<IFDSession>(*socket, problem) : sp<IFDSession>();
    tools::Figures figures;
    figures.ending = tools::Ending::Gone;
    if (session == nullptr) {
        warnx("there is no provider: %s", problem.c_str());
    } else {
        figures = stream(session, options, outputs, signals);
        tools::printTable({figures});
    }
    bool saved = outputs.finish();
    if (options.json) saved &= tools::writeJson(figures, *options.json);
    const int code = codeOf(figures, options.frames == 0);
    return code == kAllDelivered && !saved ? kSomeFailed : code;
}

}  // namespace

int main(int argc, char** argv) {
    try {
        return run(argc, argv);
    } catch (const std::exception& error) {  // of the standard library, when memory is short
        warnx("%s", error.what());
        return kSomeFailed;
    }
}
