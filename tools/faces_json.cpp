#include "faces_json.h"

#include <cstdio>

namespace tools {

namespace {

constexpr const char* kUnknown = "null";

const char* nameOf(const Answer& answer, const Sight* sight) {
    if (sight != nullptr) return "detected";
    if (answer.outcome == Answer::Outcome::Skipped) return "skipped";
    return answer.outcome == Answer::Outcome::Filled ? "unfilled" : "failed";
}

std::string inBrackets(std::initializer_list<int> numbers) {
    std::string text = "[";
    for (const int number : numbers)
        text += (text.size() > 1 ? ", " : "") + std::to_string(number);
    return text + "]";
}

std::string inBrackets(const camera::Rect& rect) {
    return inBrackets({rect.x, rect.y, rect.width, rect.height});
}

std::string inBrackets(const std::vector<camera::Rect>& rects) {
    std::string text = "[";
    for (const camera::Rect& rect : rects)
        text += (text.size() > 1 ? ", " : "") + inBrackets(rect);
    return text + "]";
}

std::string milliseconds(double value) {
    char text[32];
    snprintf(text, sizeof(text), "%.3f", value);
    return text;
}

/** Of what is there, in the words of `how`. */
template <typename T, typename How>
std::string orUnknown(const T& value, How how) {
    return value ? std::string(how(*value)) : kUnknown;
}

}  // namespace

std::string lineOf(const Answer& answer, const Sight* sight) {
    const camera::Told& told = answer.told;
    const auto rect = [](const camera::Rect& value) { return inBrackets(value); };
    const auto rects = [](const std::vector<camera::Rect>& value) { return inBrackets(value); };
    const auto field = [](const char* name, const std::string& value) {
        return std::string(", \"") + name + "\": " + value;
    };
    std::string line = "{\"frame\": " + std::to_string(answer.frameNumber);
    line += field("outcome", std::string("\"") + nameOf(answer, sight) + "\"");
    line += field("sensor_ns",
                  orUnknown(told.sensorNs, [](uint64_t value) { return std::to_string(value); }));
    line += field("picture", orUnknown(told.picture, [](const camera::Picture& picture) {
                      return inBrackets({picture.size.width, picture.size.height});
                  }));
    line += field("turned", orUnknown(told.picture, [](const camera::Picture& picture) {
                      return picture.isTurned ? "true" : "false";
                  }));
    line += field("view", orUnknown(told.view, rect));
    line += field("faces", sight != nullptr ? inBrackets(sight->faces) : kUnknown);
    line +=
        field("faces_in_picture", sight != nullptr ? orUnknown(sight->places, rects) : kUnknown);
    line += field("detection_ms", sight != nullptr ? milliseconds(sight->detectionMs) : kUnknown);
    line += field("camera_to_faces_ms",
                  sight != nullptr ? orUnknown(sight->cameraToFacesMs, milliseconds) : kUnknown);
    return line + "}\n";
}

}  // namespace tools
