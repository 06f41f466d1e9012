#include "control_words.h"

#include <cmath>
#include <cstdlib>
#include <sstream>

namespace tools {

namespace {

constexpr const char* kNoCrop = "is no crop: four numbers X,Y,W,H that fit";

}  // namespace

template <>
std::optional<float> numberOf<float>(const std::string& text) {
    const bool isDecimal = text.find_first_not_of("0123456789.eE+-") == std::string::npos;
    if (!isDecimal || text.empty() || text.front() == '+') return std::nullopt;
    char* end = nullptr;
    const float number = strtof(text.c_str(), &end);
    return *end == '\0' && std::isfinite(number) ? std::optional(number) : std::nullopt;
}

std::optional<Crop> cropOf(const std::string& text) {
    std::vector<std::optional<int32_t>> numbers;
    std::istringstream stream(text);
    for (std::string part; std::getline(stream, part, ',');)
        numbers.push_back(numberOf<int32_t>(part));
    if (numbers.size() != 4 || text.back() == ',') return std::nullopt;
    for (const auto& number : numbers) {
        if (!number) return std::nullopt;
    }
    return Crop{*numbers[0], *numbers[1], *numbers[2], *numbers[3]};
}

std::optional<FrameSides> sidesOf(const std::string& text) {
    const size_t cross = text.find('x');
    if (cross == std::string::npos) return std::nullopt;
    const auto width = numberOf<int32_t>(text.substr(0, cross));
    const auto height = numberOf<int32_t>(text.substr(cross + 1));
    return width && height ? std::optional(FrameSides{*width, *height}) : std::nullopt;
}

CLI::Option* addCrop(CLI::App& app, const std::string& name, std::optional<Crop>& value,
                     const std::string& help) {
    return addOption(app, name, value, cropOf, kNoCrop, help)->type_name("X,Y,W,H");
}

void SceneWords::addTo(CLI::App& app) {
    auto* const places = app.add_option_function<std::vector<std::string>>(
        "crops",
        [this](const std::vector<std::string>& texts) {
            for (const std::string& text : texts) {
                const std::optional<Crop> crop = cropOf(text);
                if (!crop) throw CLI::ValidationError(text + " " + kNoCrop);
                crops.push_back(*crop);
            }
        },
        "rectangles, at most 1000, in pixels from the upper left");
    places->type_name("X,Y,W,H");
    addOption(app, "--of", of, sidesOf, "is no size: two numbers that fit, WxH",
              "size of the frame that the rectangles are in; without it that of the camera's "
              "picture")
        ->type_name("WxH");
    addNumber(app, "--people", people, "how many people there are; without it 0");
    addNumber(app, "--id", id, "its id; without it 0");
    addNumber(app, "--flags", flags, "its flags; without it 0");
    app.add_flag("--none", none, "without rectangles")->excludes(places);
}

SceneControl SceneWords::record(FrameSides frame) const {
    SceneControl scene = {};
    scene.crops = crops;
    scene.frameWidth = frame.width;
    scene.frameHeight = frame.height;
    scene.sceneId = id.value_or(0);
    scene.sceneFlags = flags.value_or(0);
    scene.peopleCount = people.value_or(0);
    return scene;
}

void TrackWords::addTo(CLI::App& app) {
    addNumber(app, "--time", timestampNs, "nanoseconds of the sensor's clock");
    addNumber(app, "--id", trackId, "which track");
    addCrop(app, "--target", target, "what is followed");
    addCrop(app, "--bounds", bounds, "what the view must not leave");
    addNumber(app, "--pan", pan, "pan");
    addNumber(app, "--tilt", tilt, "tilt");
    addNumber(app, "--zoom", zoom, "zoom");
    addNumber(app, "--speed", speed, "of the view, per second");
}

TrackControl TrackWords::record() const {
    TrackControl track = {};
    track.timestampNs = timestampNs.value_or(0);
    track.trackId = trackId.value_or(0);
    track.target = target.value_or(Crop{});
    track.bounds = bounds.value_or(Crop{});
    track.pan = pan.value_or(0);
    track.tilt = tilt.value_or(0);
    track.zoom = zoom.value_or(0);
    track.speed = speed.value_or(0);
    return track;
}

}  // namespace tools
