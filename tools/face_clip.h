#pragma once

#include <cstdint>
#include <filesystem>
#include <optional>
#include <string>
#include <vector>

#include "picture.h"
#include "view/geometry.h"

namespace tools {

/**
 * A clip, made as it is played, in which the face of a photograph moves through a wide picture on a
 * path that is known: never faster than 9 % of the picture's width a second, and back where it
 * began after kFrames frames.
 */
class FaceClip {
public:
    static constexpr camera::FrameSize kSize = {1280, 720};
    static constexpr int kFrames = 350;
    static constexpr int kRate = 25;  ///< frames a second

    /** Nothing, and a sentence in `problem`, when the photograph cannot be read. */
    static std::optional<FaceClip> of(const std::filesystem::path& photo, std::string& problem);

    /** The face in the frame of this number, in pixels of the picture. */
    camera::Rect face(int frame) const;
    /** What stands in front of the frames when they are played as YUV4MPEG2. */
    std::string header() const;
    /** A frame as YUV4MPEG2 has it, upright or turned by 180 degrees. */
    std::string frame(int number, bool isTurned) const;
    /** The same to look at. */
    Picture picture(int number, bool isTurned) const;

private:
    explicit FaceClip(const Picture& photo);
    /** The photograph's place in a frame. */
    camera::Rect place(int frame) const;
    /** The planes of a frame, one after the other. */
    std::string planes(int number, bool isTurned) const;

    std::vector<uint8_t> mPhoto;  ///< of its size in the clip, in libyuv's ARGB
};

}  // namespace tools
