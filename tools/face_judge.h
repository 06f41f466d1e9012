#pragma once

#include <cstdint>
#include <filesystem>
#include <optional>
#include <string>
#include <vector>

#include "face_clip.h"
#include "view/geometry.h"

namespace tools {

/** A frame that was looked at, as the detecting client tells of it. Value type. */
struct Look {
    uint32_t frame = 0;
    int64_t sensorNs = 0;
    camera::Rect view{};
    std::vector<camera::Rect> faces{};  ///< in the picture
    int clipFrame = 0;                  ///< which frame of the clip it shows
    camera::Rect truth{};               ///< where the face is, in the picture
};

/** How often what was looked at was as it has to be. Value type. */
struct Judgement {
    int looks = 0;
    int toFind = 0;  ///< of those, with the whole face in the frame, and large enough
    int found = 0;   ///< of those, with a box over the face
    int boxes = 0;   ///< of all looks, with any box
    int late = 0;    ///< looks from the second second on
    int inView = 0;  ///< of those, with the whole face in the view
};

/**
 * Reads what the detecting client has written, leaves out what does not tell of its view, and finds
 * which frame of the clip each look shows: the one by which the most faces are where they have to
 * be, because nobody knows when the clip began. Nothing, and a sentence, when that cannot be read.
 */
std::optional<std::vector<Look>> readLooks(const std::filesystem::path& json, const FaceClip& clip,
                                           bool isTurned, std::string& problem);

/** REQUIRES: the looks are of this clip, in a stream of this size. */
Judgement judge(const std::vector<Look>& looks, camera::FrameSize stream);

}  // namespace tools
