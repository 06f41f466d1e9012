#include "source/media_input.h"

#ifdef CAMERA_HAS_DEVICES
extern "C" {
#include <libavdevice/avdevice.h>
}
#endif

#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <mutex>
#include <system_error>

#include "source/webcams.h"

namespace camera {

namespace {

constexpr const char* kWebcam = "video4linux2,v4l2";

void registerDevices() {
#ifdef CAMERA_HAS_DEVICES
    static std::once_flag once;
    std::call_once(once, avdevice_register_all);
#endif
}

std::string inWords(FrameSize size) {
    return std::to_string(size.width) + "x" + std::to_string(size.height);
}

bool findFormat(const std::string& name, MediaInput& input, std::string& problem) {
    registerDevices();
    input.format = av_find_input_format(name.c_str());
    if (input.format != nullptr) return true;
    problem = "FFmpeg has no format \"" + name + "\" here";
    return false;
}

bool chooseRaw(const SourceOptions& options, MediaInput& input, std::string& problem) {
    if (!options.size) {
        problem = "raw pictures need their size";
        return false;
    }
    av_dict_set(&input.settings, "pixel_format", "nv12", 0);
    av_dict_set(&input.settings, "video_size", inWords(*options.size).c_str(), 0);
    return findFormat("rawvideo", input, problem);
}

void chooseMode(const SourceOptions& options, MediaInput& input) {
    const CameraMode mode = options.camera.size ? options.camera : bestModeOf(options.input);
    if (mode.size) av_dict_set(&input.settings, "video_size", inWords(*mode.size).c_str(), 0);
    if (mode.rate) {
        av_dict_set(&input.settings, "framerate", std::to_string(*mode.rate).c_str(), 0);
    }
    if (!mode.format.empty()) {
        av_dict_set(&input.settings, "input_format", mode.format.c_str(), 0);
    }
    input.isLive = true;
}

/** Where the bytes come from when the format does not fetch its pictures itself. */
bool chooseFile(const std::string& name, MediaInput& input, std::string& problem) {
    struct stat info = {};
    const bool isInput = name == "-";
    if ((isInput ? fstat(STDIN_FILENO, &info) : stat(name.c_str(), &info)) != 0) {
        problem = std::generic_category().message(errno);
        return false;
    }
    if (S_ISDIR(info.st_mode)) {
        problem = std::generic_category().message(EISDIR);
        return false;
    }
    input.isStream = !S_ISREG(info.st_mode) && !S_ISBLK(info.st_mode);
    input.url = "file:" + (isInput ? std::string("/dev/stdin") : name);
    if (input.isStream) input.url = "pipe:";
    return true;
}

}  // namespace

bool chooseInput(const SourceOptions& options, MediaInput& input, std::string& problem) {
    std::string format = options.format;
    if (format.empty() && options.input.rfind("/dev/video", 0) == 0) format = "v4l2";
    if (format == "nv12") {
        if (!chooseRaw(options, input, problem)) return false;
    } else if (!format.empty() && !findFormat(format, input, problem)) {
        return false;
    }
    const bool fetches = input.format != nullptr && (input.format->flags & AVFMT_NOFILE) != 0;
    if (!fetches) return chooseFile(options.input, input, problem);
    input.url = options.input;
    if (input.format->name == std::string(kWebcam)) chooseMode(options, input);
    return true;
}

}  // namespace camera
