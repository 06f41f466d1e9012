#include "stream_options.h"

#include <err.h>

#include <chrono>
#include <csignal>
#include <cstdio>

#include "default_socket.h"
#include "host/channel.h"
#include "whole_frame.h"

namespace tools {

namespace {

using android::sp;
using vendor::zoru::zoruprovider::fdstream::V1_0::IFDSession;

constexpr const char* kSizeHelp =
    "the stream's size. The test source knows 1280x720 only: a smaller size gets the file's bytes "
    "laid out at its own width, and one that needs more than 1,382,400 bytes comes back unfilled, "
    "which is counted as wrong";

/** Nothing when this is not WxH with numbers that can be. */
std::optional<kit::FrameSize> sizeOf(const std::string& text) {
    constexpr int kMost = 8192;
    kit::FrameSize size = {};
    char rest = 0;
    // NOLINTNEXTLINE(cert-err34-c): numbers that are too large are out of range below
    const int read = sscanf(text.c_str(), "%5dx%5d%c", &size.width, &size.height, &rest);
    const auto fits = [](int side) { return side >= 1 && side <= kMost; };
    return read == 2 && fits(size.width) && fits(size.height) ? std::optional(size) : std::nullopt;
}

}  // namespace

kit::FrameSize StreamOptions::frameSize() const {
    return sizeOf(size).value();
}

StreamSettings StreamOptions::settings() const {
    StreamSettings settings = {};
    settings.frames = frames == 0 ? UINT32_MAX : frames;
    settings.buffers = buffers;
    settings.size = frameSize();
    settings.copy = wholeFrame;
    return settings;
}

void declare(CLI::App& app, StreamOptions& options, uint32_t leastBuffers) {
    constexpr uint32_t kMostBuffers = 32;

    app.add_option("--socket", options.socket,
                   std::string("the provider's socket; without it ") + kit::kDefaultSocketInWords)
        ->type_name("PATH");
    app.add_flag("--wait", options.wait, "waits until a provider is there");
    app.add_option("--frames", options.frames, "frames to ask for; 0: until interrupted")
        ->type_name("N")
        ->capture_default_str();
    app.add_option("--buffers", options.buffers,
                   "the client's buffers, " + std::to_string(leastBuffers) +
                       " to 32: the most that is in flight")
        ->type_name("K")
        ->check(CLI::Range(leastBuffers, kMostBuffers).description(""))
        ->capture_default_str();
    app.add_option("--size", options.size, kSizeHelp)
        ->type_name("WxH")
        ->check(CLI::Validator(
            [](std::string& text) {
                return sizeOf(text)
                           ? std::string()
                           : text +
                                 " is no size: two numbers from 1 to 8192 with an x between them";
            },
            ""))
        ->capture_default_str();
}

kit::Signals signalsToTake() {
    struct sigaction hangup = {};
    sigaction(SIGHUP, nullptr, &hangup);
    return hangup.sa_handler == SIG_IGN ? kit::Signals({SIGINT, SIGTERM})
                                        : kit::Signals({SIGINT, SIGTERM, SIGHUP});
}

sp<IFDSession> findProvider(const StreamOptions& options, const kit::Signals& signals) {
    constexpr std::chrono::milliseconds kLook(200);
    std::string problem;
    const std::optional<std::string> socket =
        options.socket ? options.socket : kit::defaultSocket(problem);
    if (socket && options.wait) warnx("waiting for a provider at %s", socket->c_str());
    const std::chrono::milliseconds patience = options.wait ? kLook : kLook * 0;
    sp<IFDSession> session;
    bool mayCome = socket.has_value();
    while (session == nullptr && mayCome) {
        const auto start = Clock::now();
        session = host::connectWithin<IFDSession>(*socket, patience, problem);
        // What is not waited for, such as a path that is too long, does not come.
        const bool waited = Clock::now() - start >= patience;
        mayCome = options.wait && waited && signals.poll() == 0;
    }
    if (session == nullptr) {
        warnx("there is no provider: %s", problem.c_str());
        if (!options.wait)
            warnx("start one with fdstream-provider in another terminal, or wait with --wait");
    }
    return session;
}

int codeOf(const Figures& figures) {
    if (figures.ending == Ending::Gone) return kProviderGone;
    if (figures.ending == Ending::TakenOver) return kTakenOver;
    const bool atEnd = figures.ending == Ending::Complete || figures.ending == Ending::Interrupted;
    const bool right = figures.failed() == 0 && figures.missing() == 0 && figures.wrong == 0;
    return atEnd && right ? kAllDelivered : kSomeFailed;
}

}  // namespace tools
