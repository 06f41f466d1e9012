#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "view/geometry.h"

namespace camera {

/** Where Debian's opencv-data has its cascades. */
constexpr const char* kUsualCascade =
    "/usr/share/opencv4/haarcascades/haarcascade_frontalface_default.xml";

/** How faces are looked for. Value type. */
struct FaceSearch {
    std::string cascade = kUsualCascade;
    double factor = 1.2;  ///< from one size to the next, above 1
    int neighbours = 5;   ///< detections beside each other that one face needs
    int least = 48;       ///< pixels, of a face's side
    int threads = 1;      ///< for all detectors of the process
};

/**
 * Finds upright faces with one of OpenCV's cascades. Owns the cascade; not copied. One thread at a
 * time.
 */
class FaceDetector {
public:
    /** Null, and a sentence in `problem`, when the cascade is not there or is none. */
    static std::unique_ptr<FaceDetector> open(const FaceSearch& search, std::string& problem);
    ~FaceDetector();
    FaceDetector(const FaceDetector&) = delete;
    FaceDetector& operator=(const FaceDetector&) = delete;

    /**
     * The faces in a luma plane with rows `stride` bytes apart, which is read where it is. Throws
     * what OpenCV throws, which is derived from std::exception, when memory is short.
     */
    std::vector<Rect> find(const uint8_t* luma, FrameSize size, size_t stride);

private:
    struct Parts;
    explicit FaceDetector(std::unique_ptr<Parts> parts);
    std::unique_ptr<Parts> mParts;
};

}  // namespace camera
