#pragma once

#include <android/log.h>

#include <optional>
#include <string>

#include "camera_input.h"

namespace tools {

// A provider's exit codes.
constexpr int kEnded = 0;
constexpr int kNotStarted = 2;

/** What a provider is asked for on its command line. Value type. */
struct ProviderOptions {
    std::optional<std::string> socket;
    std::optional<std::string> control;
    CameraArguments source;
    bool flipped = false;
    bool idle = false;
    int logPriority = ANDROID_LOG_ERROR;
};

/** Nothing when the provider is to go on, else the exit code. */
std::optional<int> parse(int argc, char** argv, ProviderOptions& options);

}  // namespace tools
