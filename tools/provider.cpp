// A provider in a process of its own: hosts the session, serves it on a socket, and fills the
// client's buffers from a file.

#include <err.h>
#include <poll.h>
#include <unistd.h>
#include <utils/StrongPointer.h>

#include <chrono>
#include <csignal>
#include <filesystem>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <system_error>
#include <utility>

#include "FDSession.h"
#include "camera_input.h"
#include "client_watch.h"
#include "control_server.h"
#include "default_socket.h"
#include "frame_source.h"
#include "host/channel.h"
#include "host/log.h"
#include "host/properties.h"
#include "nv12_file.h"
#include "play_folder.h"
#include "provider_options.h"
#include "run_program.h"
#include "signals.h"
#include "watched_session.h"

namespace {

namespace fs = std::filesystem;
using android::sp;
using tools::ProviderOptions;
using vendor::zoru::zoruprovider::fdstream::V1_0::implementation::FDSession;

using tools::kEnded;
using tools::kNotStarted;

constexpr int kClipLost = 1;

constexpr const char* kFlippedProperty = "vendor.zoru.flipped";

void setFlipped(bool flipped) {
    host::setProperty(kFlippedProperty, flipped ? "true" : "false");
}

/** The clip of this name; nothing after a sentence on stderr. */
std::optional<tools::Nv12File> openClip(const std::string& name, bool partial) {
    std::string problem;
    std::optional<tools::Nv12File> clip = tools::Nv12File::open(name, problem, partial);
    if (!clip) {
        warnx("%s cannot be played: %s", tools::clipInWords(name).c_str(), problem.c_str());
    }
    return clip;
}

/** A whole path, because the working directory changes. Nothing after a sentence on stderr. */
std::optional<std::string> socketPath(const ProviderOptions& options) {
    std::string problem;
    std::error_code error;
    std::optional<std::string> path = options.socket ? fs::absolute(*options.socket, error).string()
                                                     : kit::defaultSocket(problem);
    if (error) problem = *options.socket + ": " + error.message();
    if (problem.empty()) return path;
    warnx("%s", problem.c_str());
    return std::nullopt;
}

/** The same for the socket of the controls. */
std::optional<std::string> controlPath(const ProviderOptions& options, const std::string& socket) {
    if (!options.control) return kit::controlSocketOf(socket);
    std::error_code error;
    std::string path = fs::absolute(*options.control, error).string();
    if (!error) return path;
    warnx("%s: %s", options.control->c_str(), error.message().c_str());
    return std::nullopt;
}

/** Says a line to whoever reads; nothing holds it up when nobody does. Any thread. */
void say(const std::string& line) {
    // One at a time, so that the room that was seen is still there.
    static std::mutex mutex;
    const std::lock_guard<std::mutex> lock(mutex);
    pollfd output = {STDOUT_FILENO, POLLOUT, 0};
    if (poll(&output, 1, 0) <= 0 || (output.revents & POLLOUT) == 0) return;
    const ssize_t written = write(STDOUT_FILENO, line.data(), line.size());
    static_cast<void>(written);  // it goes on without
}

/** Null after a sentence on stderr. */
std::unique_ptr<host::Server> listen(const std::string& socket,
                                     const std::shared_ptr<tools::CameraInput>& played) {
    const auto watch = std::make_shared<tools::ClientWatch>(
        [](const std::string& line) { say(line + "\n"); },
        // The session holds on to this with a client's callback, and must not do so to its camera.
        [known = std::weak_ptr(played)](bool hasClient) {
            if (const auto camera = known.lock()) camera->holderChanged(hasClient);
        });
    const sp<tools::WatchedSession> session =
        new tools::WatchedSession(FDSession::getInstance()->getInterface(), watch);
    host::ConnectionEvents events;
    events.came = [watch](pid_t client) { watch->came(client); };
    events.went = [watch](pid_t client) { watch->went(client); };
    std::string problem;
    std::unique_ptr<host::Server> server =
        host::Server::listen(socket, session, problem, std::move(events));
    if (server == nullptr) warnx("%s", problem.c_str());
    return server;
}

/** Null after a sentence on stderr. */
std::unique_ptr<control::ControlServer> listenForControls(
    const std::string& socket, const std::shared_ptr<tools::CameraInput>& camera) {
    control::StatusSource status;
    if (camera != nullptr) {
        status = [camera] {
            const camera::CameraStatus now = camera->status();
            return control::CameraStatus{now.picture.width, now.picture.height, now.rate,
                                         now.frames, now.dropped};
        };
    }
    std::string problem;
    auto server = control::ControlServer::listen(socket, FDSession::getInstance(), status, problem);
    if (server == nullptr) warnx("%s", problem.c_str());
    return server;
}

/** Until a signal ends it. False, after a sentence on stderr, when its clip has been cut before. */
bool serve(const ProviderOptions& options, const std::string& socket,
           const std::optional<tools::Nv12File>& clip, const tools::CameraInput* camera,
           const kit::Signals& signals) {
    constexpr std::chrono::milliseconds kLook(200);
    bool flipped = options.flipped;
    const std::string name = tools::clipInWords(options.source.input.value_or(""));
    say("listening on " + socket + "\n");
    if (clip) say(name + " is played as " + clip->description() + "\n");
    if (camera != nullptr) say(name + " is played: " + camera->description() + "\n");
    for (;;) {
        const int number = clip ? signals.wait(kLook) : signals.wait();
        if (clip && clip->isCut()) {
            warnx("%s has become shorter while it was played", name.c_str());
            return false;
        }
        if (number == SIGHUP) {
            flipped = !flipped;
            setFlipped(flipped);
            say(flipped ? "frames come turned by 180 degrees\n" : "frames come upright\n");
        } else if (number != 0) {
            return true;
        }
    }
}

int run(int argc, char** argv) {
    ProviderOptions options;
    if (const std::optional<int> code = tools::parse(argc, argv, options)) return *code;
    kit::openStandardStreams();
    host::setStderrLogPriority(options.logPriority);
    const std::optional<std::string> socket = socketPath(options);
    if (!socket) return kNotStarted;
    const std::optional<std::string> controls = controlPath(options, *socket);
    if (!controls) return kNotStarted;
    const bool isForCamera = options.source.areForCamera();
    // Before signals are blocked: a pipe may never end.
    std::optional<tools::Nv12File> clip;
    if (options.source.input && !isForCamera) {
        clip = openClip(*options.source.input, options.source.isClip);
        if (!clip) return kNotStarted;
    }

    const kit::Signals signals({SIGHUP, SIGINT, SIGTERM});
    signal(SIGPIPE, SIG_IGN);  // it outlives who reads its lines
    std::shared_ptr<tools::CameraInput> camera;
    if (isForCamera) {
        std::optional<int> ending;
        camera = tools::CameraInput::open(
            options.source, signals, [](const std::string& line) { say(line + "\n"); }, ending);
        if (camera == nullptr) return ending ? kEnded : kNotStarted;
    }
    const bool isFilled = !options.idle && camera == nullptr;
    std::optional<tools::PlayFolder> folder;
    if (isFilled && !folder.emplace().enter(clip ? std::optional(clip->path()) : std::nullopt)) {
        return kNotStarted;
    }

    setFlipped(options.flipped);
    const std::unique_ptr<host::Server> server = listen(*socket, camera);
    if (server == nullptr) return kNotStarted;
    const std::unique_ptr<control::ControlServer> controlServer =
        listenForControls(*controls, camera);
    if (controlServer == nullptr) return kNotStarted;
    // Ends before the server does, so that no frame is on its way when the connections end.
    std::optional<tools::FrameSource> source;
    if (isFilled) source.emplace();
    const bool isWhole = serve(options, *socket, clip, camera.get(), signals);
    if (camera != nullptr) camera->end();
    return isWhole ? kEnded : kClipLost;
}

}  // namespace

int main(int argc, char** argv) {
    return kit::runProgram(run, argc, argv, kNotStarted);
}
