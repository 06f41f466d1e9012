#include "faces/face_detector.h"

#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <iterator>
#include <opencv2/core.hpp>
#include <opencv2/core/utils/logger.hpp>
#include <opencv2/objdetect.hpp>
#include <utility>

namespace camera {

struct FaceDetector::Parts {
    FaceSearch search;
    cv::CascadeClassifier cascade;
};

namespace {

bool load(cv::CascadeClassifier& cascade, const std::string& path) {
    try {
        return cascade.load(path) && !cascade.empty();
    } catch (const cv::Exception&) {
        return false;  // what it says has been written for programmers
    }
}

}  // namespace

std::unique_ptr<FaceDetector> FaceDetector::open(const FaceSearch& search, std::string& problem) {
    if (access(search.cascade.c_str(), R_OK) != 0) {
        problem = search.cascade + ": " + strerror(errno);
        return nullptr;
    }
    cv::utils::logging::setLogLevel(cv::utils::logging::LOG_LEVEL_SILENT);
    cv::setNumThreads(search.threads);
    auto parts = std::make_unique<Parts>();
    parts->search = search;
    if (!load(parts->cascade, search.cascade)) {
        problem = search.cascade + " is no cascade";
        return nullptr;
    }
    return std::unique_ptr<FaceDetector>(new FaceDetector(std::move(parts)));
}

FaceDetector::FaceDetector(std::unique_ptr<Parts> parts) : mParts(std::move(parts)) {}
FaceDetector::~FaceDetector() = default;

std::vector<Rect> FaceDetector::find(const uint8_t* luma, FrameSize size, size_t stride) {
    const FaceSearch& search = mParts->search;
    // The library asks for memory that may be written to, and only reads this.
    const cv::Mat plane(size.height, size.width, CV_8UC1, const_cast<uint8_t*>(luma), stride);
    std::vector<cv::Rect> found;
    mParts->cascade.detectMultiScale(plane, found, search.factor, search.neighbours, 0,
                                     {search.least, search.least});
    std::vector<Rect> faces;
    std::transform(found.begin(), found.end(), std::back_inserter(faces), [](const cv::Rect& face) {
        return Rect{face.x, face.y, face.width, face.height};
    });
    return faces;
}

}  // namespace camera
