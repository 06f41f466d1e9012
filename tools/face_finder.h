#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "faces/face_detector.h"
#include "stream_client.h"
#include "view/faces.h"

namespace tools {

/** What was seen in a frame that was looked at. Value type. */
struct Sight {
    std::vector<camera::Rect> faces;                  ///< in the frame, those that count
    std::optional<std::vector<camera::Rect>> places;  ///< of those, in the picture
    double detectionMs = 0;
    std::optional<double> cameraToFacesMs;  ///< from the frame's sensor time on
};

/** Finds the faces in a stream's frames, and where they are in the picture. For one thread. */
class FaceFinder {
public:
    explicit FaceFinder(std::unique_ptr<camera::FaceDetector> detector)
        : mDetector(std::move(detector)) {}

    /** REQUIRES: the answer's picture is lent. */
    Sight look(const Answer& answer);
    /** For a frame that is not looked at, so that what was told of it is known. */
    void pass(const Answer& answer) { note(answer.told); }

private:
    void note(const camera::Told& told);

    std::unique_ptr<camera::FaceDetector> mDetector;
    camera::SteadyFaces mSteady;
    std::optional<bool> mIsTurned;
    // While the turn changes, a frame may have been turned after it was said not to be.
    int mUnsureFrames = 0;
};

}  // namespace tools
