#include <err.h>

#include "camera_input.h"

namespace tools {

std::shared_ptr<CameraInput> CameraInput::open(const CameraArguments& arguments,
                                               const kit::Signals& /*signals*/,
                                               std::function<void(const std::string&)> /*say*/,
                                               std::optional<int>& /*ending*/) {
    warnx(
        "%s cannot be played: without FFmpeg this build plays raw clips only, named .yuv or .nv12",
        arguments.input->c_str());
    return nullptr;
}

}  // namespace tools
