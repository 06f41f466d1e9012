#include "source/source_options.h"

#include <cstdlib>
#include <regex>

namespace camera {

namespace {

FrameSize sizeOf(const std::smatch& match) {
    return {std::stoi(match[1]), std::stoi(match[2])};
}

}  // namespace

std::optional<FrameSize> sizeIn(const std::string& text) {
    static const std::regex shape("([1-9][0-9]{0,4})x([1-9][0-9]{0,4})");
    std::smatch match;
    if (!std::regex_match(text, match, shape)) return std::nullopt;
    return sizeOf(match);
}

std::optional<CameraMode> cameraModeIn(const std::string& text) {
    static const std::regex shape(
        "([1-9][0-9]{0,4})x([1-9][0-9]{0,4})(@([0-9]{1,4}(\\.[0-9]{1,3})?))?(:([a-z0-9_]+))?");
    std::smatch match;
    if (!std::regex_match(text, match, shape)) return std::nullopt;
    CameraMode mode;
    mode.size = sizeOf(match);
    if (match[4].matched) mode.rate = strtod(match[4].str().c_str(), nullptr);
    if (mode.rate && *mode.rate <= 0) return std::nullopt;
    mode.format = match[7];
    return mode;
}

}  // namespace camera
