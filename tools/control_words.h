#pragma once

#include <CLI/CLI.hpp>
#include <charconv>
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "IFDControl.h"

/** What fdstream-ctl is told on its command line. */
namespace tools {

using control::SceneControl;
using control::TrackControl;
using vendor::zoru::zoruprovider::zoruprovider::V2_4::Crop;

/** Nothing when the text is anything but one number that the type holds. */
template <typename Number>
std::optional<Number> numberOf(const std::string& text) {
    Number number = {};
    const char* const end = text.data() + text.size();
    const auto [rest, error] = std::from_chars(text.data(), end, number);
    return error == std::errc() && rest == end ? std::optional(number) : std::nullopt;
}
/** Without from_chars(), which not every standard library has for fractions. */
template <>
std::optional<float> numberOf<float>(const std::string& text);

/** Nothing when it is not X,Y,W,H. */
std::optional<Crop> cropOf(const std::string& text);

struct FrameSides {
    int32_t width = 0;
    int32_t height = 0;
};
/** Nothing when it is not WxH. */
std::optional<FrameSides> sidesOf(const std::string& text);

/** An option whose text `parse` makes a value of; one that it makes none of is bad usage. */
template <typename Value, typename Parse>
CLI::Option* addOption(CLI::App& app, const std::string& name, std::optional<Value>& value,
                       Parse parse, const std::string& problem, const std::string& help) {
    return app.add_option_function<std::string>(
        name,
        [&value, parse, problem](const std::string& text) {
            value = parse(text);
            if (!value) throw CLI::ValidationError(text + " " + problem);
        },
        help);
}
template <typename Number>
CLI::Option* addNumber(CLI::App& app, const std::string& name, std::optional<Number>& value,
                       const std::string& help) {
    return addOption(app, name, value, numberOf<Number>, "is no number that fits", help)
        ->type_name("N");
}
CLI::Option* addCrop(CLI::App& app, const std::string& name, std::optional<Crop>& value,
                     const std::string& help);

/** What a scene, or a view, is to be. */
struct SceneWords {
    std::vector<Crop> crops;
    std::optional<FrameSides> of;
    std::optional<int32_t> people;
    std::optional<int32_t> id;
    std::optional<int32_t> flags;
    bool none = false;

    /** The values must outlive the parsing. */
    void addTo(CLI::App& app);
    SceneControl record(FrameSides frame) const;
    /** Whether anything was said at all. */
    bool isSet() const { return none || !crops.empty() || of || people || id || flags; }
};

/** What a tracking control is to be. */
struct TrackWords {
    std::optional<int64_t> timestampNs;
    std::optional<int32_t> trackId;
    std::optional<Crop> target;
    std::optional<Crop> bounds;
    std::optional<float> pan;
    std::optional<float> tilt;
    std::optional<float> zoom;
    std::optional<float> speed;

    void addTo(CLI::App& app);
    TrackControl record() const;
    bool isSet() const {
        return timestampNs || trackId || target || bounds || pan || tilt || zoom || speed;
    }
};

}  // namespace tools
