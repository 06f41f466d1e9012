#include "control_json.h"

#include <cmath>
#include <cstdio>

namespace tools {

namespace {

using vendor::zoru::zoruprovider::zoruprovider::V2_4::Crop;

std::string member(const char* name, const std::string& value) {
    return std::string("\"") + name + "\":" + value;
}

template <typename Number>
std::string member(const char* name, Number value) {
    return member(name, std::to_string(value));
}

/** As short as brings the same number back; null for what JSON has no number for. */
std::string real(double value, int digits) {
    char text[40] = "null";
    if (std::isfinite(value)) snprintf(text, sizeof(text), "%.*g", digits, value);
    return text;
}

std::string member(const char* name, float value) {
    constexpr int kDigits = 9;
    return member(name, real(value, kDigits));
}

std::string json(const Crop& crop) {
    return "{" + member("x", crop.x) + "," + member("y", crop.y) + "," +
           member("width", crop.width) + "," + member("height", crop.height) + "}";
}

}  // namespace

std::string json(const control::SceneControl& scene) {
    std::string crops;
    for (const Crop& crop : scene.crops)
        crops += (crops.empty() ? "" : ",") + json(crop);
    return "{" + member("crops", "[" + crops + "]") + "," + member("frameWidth", scene.frameWidth) +
           "," + member("frameHeight", scene.frameHeight) + "," + member("sceneId", scene.sceneId) +
           "," + member("sceneFlags", scene.sceneFlags) + "," +
           member("peopleCount", scene.peopleCount) + "}";
}

std::string json(const control::TrackControl& track) {
    return "{" + member("timestampNs", track.timestampNs) + "," + member("trackId", track.trackId) +
           "," + member("target", json(track.target)) + "," + member("bounds", json(track.bounds)) +
           "," + member("pan", track.pan) + "," + member("tilt", track.tilt) + "," +
           member("zoom", track.zoom) + "," + member("speed", track.speed) + "}";
}

std::string json(control::TrackingMode mode) {
    return "{" + member("mode", static_cast<int32_t>(mode)) + "}";
}

std::string json(int32_t peopleCount) {
    return "{" + member("peopleCount", peopleCount) + "}";
}

std::string json(const std::optional<control::CameraStatus>& status) {
    constexpr int kDigits = 6;
    if (!status) return R"({"picture":null,"rate":null,"frames":null,"dropped":null})";
    const std::string picture =
        "{" + member("width", status->width) + "," + member("height", status->height) + "}";
    return "{" + member("picture", picture) + "," + member("rate", real(status->rate, kDigits)) +
           "," + member("frames", status->frames) + "," + member("dropped", status->dropped) + "}";
}

std::string json(const control::Event& event) {
    using Kind = control::Event::Kind;
    const std::string rest = "," + member("timeNs", event.timeNs) + ",";
    switch (event.kind) {
        case Kind::SCENE:
            return R"({"event":"scene")" + rest + member("scene", json(event.scene)) + "}";
        case Kind::PTZ:
            return R"({"event":"ptz")" + rest + member("ptz", json(event.scene)) + "}";
        case Kind::TRACK:
            return R"({"event":"track")" + rest + member("track", json(event.track)) + "}";
        case Kind::MODE:
            return R"({"event":"mode")" + rest + member("mode", static_cast<int32_t>(event.mode)) +
                   "}";
        case Kind::NONE:
            break;
    }
    return "{}";
}

}  // namespace tools
