#include <algorithm>
#include <cctype>
#include <filesystem>
#include <iostream>

#include "camera_input.h"
#include "source/source_options.h"
#include "source/webcams.h"

namespace tools {

namespace {

bool isNamedRaw(const std::string& name) {
    std::string extension = std::filesystem::path(name).extension();
    std::transform(extension.begin(), extension.end(), extension.begin(),
                   [](unsigned char letter) { return static_cast<char>(std::tolower(letter)); });
    return extension == ".yuv" || extension == ".nv12";
}

bool isWebcam(const CameraArguments& arguments) {
    if (arguments.format == "v4l2" || arguments.format == "video4linux2") return true;
    return arguments.format.empty() && arguments.input &&
           arguments.input->rfind("/dev/video", 0) == 0;
}

}  // namespace

bool CameraArguments::areForCamera() const {
    return input && !isClip && (!format.empty() || !isNamedRaw(*input));
}

void addCameraOptions(CLI::App& app, CameraArguments& arguments) {
    app.add_option("--format", arguments.format,
                   "of an input whose content does not tell: as FFmpeg calls it, such as lavfi, or "
                   "nv12 for raw pictures")
        ->type_name("NAME");
    app.add_option("--size", arguments.size, "of raw pictures")->type_name("WxH");
    app.add_option("--camera", arguments.camera,
                   "a webcam's mode, WxH[@RATE][:FORMAT]; without it the largest up to 1920x1080 "
                   "with 25 frames a second")
        ->type_name("MODE");
    app.add_option("--fps", arguments.fps,
                   "plays every frame, so many a second; 0: one for each request")
        ->check(CLI::Range(0.0, 1000.0).description(""))
        ->type_name("N");
    app.add_flag("--once", arguments.once, "ends the stream where the file ends");
    app.add_flag("--list", arguments.list, "tells which webcams there are, and ends");
}

std::string faultIn(const CameraArguments& arguments) {
    if (!arguments.areForCamera()) {
        const bool isAny = !arguments.format.empty() || arguments.size || arguments.camera ||
                           arguments.fps || arguments.once;
        return isAny ? "--format, --size, --camera, --fps and --once are for what is no raw clip"
                     : "";
    }
    const bool isRaw = arguments.format == "nv12";
    if (arguments.size && !camera::sizeIn(*arguments.size)) return "--size takes WxH";
    if (isRaw && !arguments.size) return "--format nv12 needs --size WxH";
    if (!isRaw && arguments.size) return "--size is for --format nv12";
    if (arguments.camera && !camera::cameraModeIn(*arguments.camera)) {
        return "--camera takes WxH[@RATE][:FORMAT]";
    }
    if (arguments.camera && !isWebcam(arguments)) return "--camera is for a webcam";
    return "";
}

void listWebcams() {
    const std::vector<camera::Webcam> found = camera::webcams();
    for (const camera::Webcam& webcam : found)
        std::cout << camera::inWords(webcam);
    if (found.empty()) std::cout << "there is no webcam here\n";
}

}  // namespace tools
