#include "source/source_options.h"

#include <charconv>
#include <cstdlib>
#include <string>
#include <string_view>

namespace camera {

namespace {

constexpr int kMost = 99999;  // of pixels

/** Takes a number off the front; false when there is none. */
bool take(std::string_view& text, int& number) {
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), number);
    if (error != std::errc()) return false;
    text.remove_prefix(static_cast<size_t>(end - text.data()));
    return true;
}

/** The same for a fraction, which not every standard library has from_chars() for. */
bool take(std::string_view& text, double& number) {
    const std::string digits(text.substr(0, text.find_first_not_of("0123456789.")));
    char* end = nullptr;
    number = strtod(digits.c_str(), &end);
    text.remove_prefix(static_cast<size_t>(end - digits.c_str()));
    return end != digits.c_str();
}

bool take(std::string_view& text, char letter) {
    if (text.empty() || text.front() != letter) return false;
    text.remove_prefix(1);
    return true;
}

std::optional<FrameSize> takeSize(std::string_view& text) {
    FrameSize size = {};
    if (!take(text, size.width) || !take(text, 'x') || !take(text, size.height)) return {};
    const auto isSize = [](int pixels) { return pixels > 0 && pixels <= kMost; };
    if (!isSize(size.width) || !isSize(size.height)) return {};
    return size;
}

}  // namespace

std::optional<FrameSize> sizeIn(const std::string& text) {
    std::string_view left = text;
    const std::optional<FrameSize> size = takeSize(left);
    return left.empty() ? size : std::nullopt;
}

std::optional<CameraMode> cameraModeIn(const std::string& text) {
    std::string_view left = text;
    CameraMode mode;
    mode.size = takeSize(left);
    if (!mode.size) return std::nullopt;
    if (take(left, '@')) {
        double rate = 0;
        if (!take(left, rate) || !(rate > 0 && rate <= 1000)) return std::nullopt;
        mode.rate = rate;
    }
    if (take(left, ':')) {
        mode.format = left;
        if (mode.format.empty()) return std::nullopt;
        left = {};
    }
    if (!left.empty()) return std::nullopt;
    return mode;
}

}  // namespace camera
