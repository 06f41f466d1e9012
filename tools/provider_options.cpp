#include "provider_options.h"

#include <err.h>

#include <map>

#include "command_line.h"
#include "default_socket.h"

namespace tools {

namespace {

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
    "  fdstream-provider --input street.mp4  plays a video by its own time, again and\n"
    "                                        again\n"
    "  fdstream-provider --input /dev/video0 plays a webcam\n"
    "  ffmpeg -re -i street.mp4 -f mpegts - | fdstream-provider --input -\n"
    "  fdstream-provider --format lavfi --input testsrc2=s=640x480\n"
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

}  // namespace

std::optional<int> parse(int argc, char** argv, ProviderOptions& options) {
    std::string log = "error";
    CLI::App app(
        "Serves the stream session to clients in other processes of this user, and fills their "
        "buffers from a video, a webcam, or a raw clip, that at most 20 frames a second.",
        "fdstream-provider");
    app.footer(kExamples);
    app.add_option("--socket", options.socket,
                   std::string("where clients connect; without it ") + kit::kDefaultSocketInWords)
        ->type_name("PATH");
    app.add_option("--control", options.control,
                   "where fdstream-ctl connects; without it the same with .control behind it")
        ->type_name("PATH");
    auto* const input =
        app.add_option("--input", options.source.input,
                       "video, webcam or pipe to play, - for standard input; a name that ends in "
                       ".yuv or .nv12 is a raw clip's; without it one is drawn")
            ->type_name("FILE");
    app.add_flag("--partial", options.source.isClip,
                 "plays a raw clip of any name, and leaves out a part of a frame at its end")
        ->needs(input);
    addCameraOptions(app, options.source);
    app.add_flag("--flipped", options.flipped, "turns the frames by 180 degrees from the start");
    app.add_flag("--idle", options.idle, "takes no requests")->excludes(input);
    app.add_option("--log", log,
                   "what of the log goes to stderr: verbose, debug, info, warn, error or silent")
        ->check(CLI::IsMember(&logLevels()).description(""))
        ->type_name("LEVEL")
        ->capture_default_str();
    if (const auto code = kit::parseCommandLine(app, argc, argv, kNotStarted)) return code;
    options.logPriority = logLevels().at(log);
    if (options.source.list) {
        listWebcams();
        return kit::finishStandardOutput() ? kEnded : kNotStarted;
    }
    const std::string fault = faultIn(options.source);
    if (fault.empty()) return std::nullopt;
    warnx("%s", fault.c_str());
    return kNotStarted;
}

}  // namespace tools
