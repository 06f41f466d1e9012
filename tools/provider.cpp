// A provider in a process of its own: hosts the session, serves it on a socket, and fills the
// client's buffers from a file.

#include <android/log.h>
#include <err.h>
#include <poll.h>
#include <unistd.h>
#include <utils/StrongPointer.h>

#include <CLI/CLI.hpp>
#include <chrono>
#include <csignal>
#include <filesystem>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <system_error>
#include <utility>

#include "FDSession.h"
#include "client_watch.h"
#include "command_line.h"
#include "control_server.h"
#include "default_socket.h"
#include "frame_source.h"
#include "host/channel.h"
#include "host/log.h"
#include "host/properties.h"
#include "nv12_file.h"
#include "play_folder.h"
#include "run_program.h"
#include "signals.h"
#include "watched_session.h"

namespace {

namespace fs = std::filesystem;
using android::sp;
using vendor::zoru::zoruprovider::fdstream::V1_0::implementation::FDSession;

constexpr int kEnded = 0;
constexpr int kClipLost = 1;
constexpr int kNotStarted = 2;

constexpr const char* kFlippedProperty = "vendor.zoru.flipped";

const std::map<std::string, int>& logLevels() {
    static const std::map<std::string, int> levels = {
        {"verbose", ANDROID_LOG_VERBOSE}, {"debug", ANDROID_LOG_DEBUG},
        {"info", ANDROID_LOG_INFO},       {"warn", ANDROID_LOG_WARN},
        {"error", ANDROID_LOG_ERROR},     {"silent", ANDROID_LOG_SILENT}};
    return levels;
}

constexpr const char* kExamples =
    "Examples:\n"
    "  fdstream-provider                     plays a clip that it draws, at the usual\n"
    "                                        place\n"
    "  fdstream-provider --input street.yuv  plays your clip: raw NV12, 1280x720, no\n"
    "                                        header\n"
    "  ffmpeg -i street.mp4 -f rawvideo -pix_fmt nv12 -s 1280x720 - |\n"
    "      fdstream-provider --input -       reads it to its end first, at most 4 GiB\n"
    "  fdstream-provider --flipped           frames come turned by 180 degrees\n"
    "  fdstream-provider --idle              takes no requests: each comes back as an\n"
    "                                        error after a second\n"
    "  fdstream-provider --log debug         tells of every request\n"
    "  fdstream-provider --socket ./cam.sock somewhere else\n"
    "\n"
    "Then, in another terminal: fdstream-client --watch --frames 0\n"
    "\n"
    "Signals: SIGHUP turns the frames by 180 degrees, or back; SIGINT (Ctrl-C) and\n"
    "SIGTERM end it. It prints \"listening on PATH\" when clients can come, then who\n"
    "comes, takes the session over and goes, by process number, and whose requests\n"
    "wait for nobody.\n"
    "\n"
    "Exit code: 0 it was ended by a signal, 1 its clip was cut short, 2 it could not\n"
    "start.";

struct Options {
    std::optional<std::string> socket;
    std::optional<std::string> control;
    std::optional<std::string> input;
    bool partial = false;
    bool flipped = false;
    bool idle = false;
    std::string log = "error";
};

/** Nothing when the provider is to go on, else the exit code. */
std::optional<int> parse(int argc, char** argv, Options& options) {
    CLI::App app(
        "Serves the stream session to clients in other processes of this user, and fills their "
        "buffers from a clip, at most 20 frames a second.",
        "fdstream-provider");
    app.footer(kExamples);
    app.add_option("--socket", options.socket,
                   std::string("where clients connect; without it ") + kit::kDefaultSocketInWords)
        ->type_name("PATH");
    app.add_option("--control", options.control,
                   "where fdstream-ctl connects; without it the same with .control behind it")
        ->type_name("PATH");
    auto* const input =
        app.add_option("--input", options.input,
                       "clip to play, which can be a pipe, or - for standard input; without it "
                       "one is drawn")
            ->type_name("FILE");
    app.add_flag("--partial", options.partial, "leaves out a part of a frame at the clip's end")
        ->needs(input);
    app.add_flag("--flipped", options.flipped, "turns the frames by 180 degrees from the start");
    app.add_flag("--idle", options.idle, "takes no requests")->excludes(input);
    app.add_option("--log", options.log,
                   "what of the log goes to stderr: verbose, debug, info, warn, error or silent")
        ->check(CLI::IsMember(&logLevels()).description(""))
        ->type_name("LEVEL")
        ->capture_default_str();
    return kit::parseCommandLine(app, argc, argv, kNotStarted);
}

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
std::optional<std::string> socketPath(const Options& options) {
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
std::optional<std::string> controlPath(const Options& options, const std::string& socket) {
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
std::unique_ptr<host::Server> listen(const std::string& socket) {
    const auto watch =
        std::make_shared<tools::ClientWatch>([](const std::string& line) { say(line + "\n"); });
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
std::unique_ptr<control::ControlServer> listenForControls(const std::string& socket) {
    std::string problem;
    auto server = control::ControlServer::listen(socket, FDSession::getInstance(), {}, problem);
    if (server == nullptr) warnx("%s", problem.c_str());
    return server;
}

/** Until a signal ends it. False, after a sentence on stderr, when its clip has been cut before. */
bool serve(const Options& options, const std::string& socket,
           const std::optional<tools::Nv12File>& clip, const kit::Signals& signals) {
    constexpr std::chrono::milliseconds kLook(200);
    bool flipped = options.flipped;
    const std::string name = tools::clipInWords(options.input.value_or(""));
    say("listening on " + socket + "\n");
    if (clip) say(name + " is played as " + clip->description() + "\n");
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
    Options options;
    if (const std::optional<int> code = parse(argc, argv, options)) return *code;
    kit::openStandardStreams();
    host::setStderrLogPriority(logLevels().at(options.log));
    const std::optional<std::string> socket = socketPath(options);
    if (!socket) return kNotStarted;
    const std::optional<std::string> controls = controlPath(options, *socket);
    if (!controls) return kNotStarted;
    // Before signals are blocked: a pipe may never end.
    std::optional<tools::Nv12File> clip;
    if (options.input) clip = openClip(*options.input, options.partial);
    if (options.input && !clip) return kNotStarted;

    const kit::Signals signals({SIGHUP, SIGINT, SIGTERM});
    signal(SIGPIPE, SIG_IGN);  // it outlives who reads its lines
    std::optional<tools::PlayFolder> folder;
    if (!options.idle &&
        !folder.emplace().enter(clip ? std::optional(clip->path()) : std::nullopt)) {
        return kNotStarted;
    }

    setFlipped(options.flipped);
    const std::unique_ptr<host::Server> server = listen(*socket);
    if (server == nullptr) return kNotStarted;
    const std::unique_ptr<control::ControlServer> controlServer = listenForControls(*controls);
    if (controlServer == nullptr) return kNotStarted;
    // Ends before the server does, so that no frame is on its way when the connections end.
    std::optional<tools::FrameSource> source;
    if (!options.idle) source.emplace();
    return serve(options, *socket, clip, signals) ? kEnded : kClipLost;
}

}  // namespace

int main(int argc, char** argv) {
    return kit::runProgram(run, argc, argv, kNotStarted);
}
