#pragma once

#include <string>
#include <vector>

#include "source/source_options.h"

/** What the kernel says of the cameras that are plugged in, without FFmpeg. */
namespace camera {

/** One size of one format of a camera, with the rates that it has. Value type. */
struct WebcamMode {
    std::string format;  ///< as FFmpeg calls it, or as the kernel does in capitals
    FrameSize size{};
    std::vector<double> rates{};  ///< frames a second, as the camera lists them
    bool isKnown = false;         ///< FFmpeg can be asked for it
};

/** Value type. */
struct Webcam {
    std::string device;
    std::string name;
    std::vector<WebcamMode> modes;
};

/** All that is in the folder of devices and takes pictures. */
std::vector<Webcam> webcams(const std::string& folder = "/dev");
/** Nothing is in it when the device is none. */
Webcam webcamAt(const std::string& device);

/**
 * The largest mode of at most 1920 x 1080 with at least 25 frames a second; without one, of all.
 * Empty when nothing is known of the device.
 */
CameraMode bestModeOf(const Webcam& webcam);
CameraMode bestModeOf(const std::string& device);

/** A line for a camera, and one for each of its modes. */
std::string inWords(const Webcam& webcam);

}  // namespace camera
