#include "face_judge.h"

#include <algorithm>
#include <fstream>
#include <nlohmann/json.hpp>

#include "view/faces.h"

namespace tools {

namespace {

using camera::Rect;
using nlohmann::json;

constexpr double kOver = 0.4;  ///< of a box and the face, as intersection over union
constexpr int kLeastSide = 54;
constexpr int64_t kSecondNs = 1000000000;

Rect rectOf(const json& value) {
    return {value.at(0), value.at(1), value.at(2), value.at(3)};
}

/** A frame that was looked at and that tells of its view and its moment. */
std::optional<Look> lookOf(const json& line) {
    const json& faces = line.at("faces_in_picture");
    if (faces.is_null() || line.at("sensor_ns").is_null()) return std::nullopt;
    Look look;
    look.frame = line.at("frame");
    look.sensorNs = line.at("sensor_ns");
    look.view = rectOf(line.at("view"));
    for (const json& face : faces)
        look.faces.push_back(rectOf(face));
    return look;
}

bool isFound(const Look& look) {
    return std::any_of(look.faces.begin(), look.faces.end(), [&](const Rect& face) {
        return camera::overlap(face, look.truth) >= kOver;
    });
}

bool isIn(const Rect& part, const Rect& whole) {
    return part.x >= whole.x && part.y >= whole.y && part.x + part.width <= whole.x + whole.width &&
           part.y + part.height <= whole.y + whole.height;
}

Rect turned(const Rect& face) {
    return {FaceClip::kSize.width - face.x - face.width,
            FaceClip::kSize.height - face.y - face.height, face.width, face.height};
}

/** Says of each look which frame it shows, when the first shows this one. */
void number(std::vector<Look>& looks, const FaceClip& clip, int first, bool isTurned) {
    for (Look& look : looks) {
        const int64_t since = look.sensorNs - looks.front().sensorNs;
        const int64_t frames = (since * FaceClip::kRate + kSecondNs / 2) / kSecondNs;
        look.clipFrame = static_cast<int>((first + frames) % FaceClip::kFrames);
        const Rect face = clip.face(look.clipFrame);
        look.truth = isTurned ? turned(face) : face;
    }
}

double score(const std::vector<Look>& looks) {
    double sum = 0;
    for (const Look& look : looks) {
        for (const Rect& face : look.faces)
            sum += camera::overlap(face, look.truth);
    }
    return sum;
}

}  // namespace

std::optional<std::vector<Look>> readLooks(const std::filesystem::path& path, const FaceClip& clip,
                                           bool isTurned, std::string& problem) {
    std::vector<Look> looks;
    std::ifstream file(path);
    try {
        for (std::string line; std::getline(file, line);) {
            if (const std::optional<Look> look = lookOf(json::parse(line))) looks.push_back(*look);
        }
    } catch (const json::exception& error) {
        problem = path.string() + ": " + error.what();
        return std::nullopt;
    }
    int best = 0;
    double most = -1;
    for (int first = 0; !looks.empty() && first < FaceClip::kFrames; ++first) {
        number(looks, clip, first, isTurned);
        if (score(looks) <= most) continue;
        most = score(looks);
        best = first;
    }
    if (!looks.empty()) number(looks, clip, best, isTurned);
    return looks;
}

Judgement judge(const std::vector<Look>& looks, camera::FrameSize stream) {
    Judgement result;
    for (const Look& look : looks) {
        const bool isWhole = isIn(look.truth, look.view);
        const bool isLarge = look.truth.width * stream.width >= kLeastSide * look.view.width;
        ++result.looks;
        result.boxes += look.faces.empty() ? 0 : 1;
        result.toFind += isWhole && isLarge ? 1 : 0;
        result.found += isWhole && isLarge && isFound(look) ? 1 : 0;
        if (look.sensorNs - looks.front().sensorNs < kSecondNs) continue;
        ++result.late;
        result.inView += isWhole ? 1 : 0;
    }
    return result;
}

}  // namespace tools
