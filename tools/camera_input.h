#pragma once

#include <CLI/CLI.hpp>
#include <memory>
#include <optional>
#include <string>

#include "signals.h"
#include "view/camera_status.h"

namespace tools {

/** What of a provider's command line is the camera's. Value type. */
struct CameraArguments {
    std::optional<std::string> input;  ///< the provider's own option
    bool isClip = false;               ///< said to be a raw clip
    std::string format;
    std::optional<std::string> size;
    std::optional<std::string> camera;
    std::optional<double> fps;
    bool once = false;
    bool list = false;

    /** Whether a camera plays the input; else it is a raw clip, or there is none. */
    bool areForCamera() const;
};

void addCameraOptions(CLI::App& app, CameraArguments& arguments);

/** What is wrong with them; empty when nothing is. */
std::string faultIn(const CameraArguments& arguments);

/** Prints the webcams that there are. */
void listWebcams();

/** A camera that plays an input for the process's one session, if this build has one. */
class CameraInput {
public:
    /**
     * Null after a sentence on stderr, or when a signal that ends the program came meanwhile: then
     * it is in `ending`. `say` must not wait.
     */
    static std::shared_ptr<CameraInput> open(const CameraArguments& arguments,
                                             const kit::Signals& signals,
                                             std::function<void(const std::string&)> say,
                                             std::optional<int>& ending);
    virtual ~CameraInput() = default;

    /** Ends its threads. */
    virtual void end() = 0;
    /** What is played, for a line at the start. */
    virtual std::string description() const = 0;

    // Any thread, also after the end.
    virtual void holderChanged(bool hasClient) = 0;
    virtual camera::CameraStatus status() const = 0;
};

}  // namespace tools
