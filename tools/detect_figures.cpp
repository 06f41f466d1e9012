#include "detect_figures.h"

#include <cinttypes>

#include "figures.h"
#include "statistics.h"

namespace tools {

namespace {

void printMiddleAndTail(FILE* to, const std::vector<double>& times) {
    constexpr double kTail = 95;
    if (times.empty()) {
        fprintf(to, " %8s %7s", "-", "-");
    } else {
        fprintf(to, " %8.1f %7.1f", kit::median(times), kit::percentile(times, kTail));
    }
}

}  // namespace

void DetectFigures::add(const Sight& sight, Clock::time_point end) {
    if (mDetectionMs.empty()) mFirst = end;
    mLast = end;
    mFaces += sight.faces.size();
    mDetectionMs.push_back(sight.detectionMs);
    if (sight.cameraToFacesMs) mCameraToFacesMs.push_back(*sight.cameraToFacesMs);
}

void DetectFigures::print(FILE* to) const {
    const double seconds = inMilliseconds(mLast - mFirst) / 1000;
    fprintf(to, "%7s %8s %7s %11s %16s %16s\n", "", "", "", "detections", "detection, ms",
            "to faces, ms");
    fprintf(to, "%7s %8s %7s %11s %8s %7s %8s %7s\n", "seen", "skipped", "faces", "per s", "median",
            "p95", "median", "p95");
    fprintf(to, "%7" PRIu64 " %8" PRIu64 " %7" PRIu64, mDetectionMs.size() + mSkipped, mSkipped,
            mFaces);
    if (seconds > 0) {
        fprintf(to, " %11.1f", static_cast<double>(mDetectionMs.size() - 1) / seconds);
    } else {
        fprintf(to, " %11s", "-");
    }
    printMiddleAndTail(to, mDetectionMs);
    printMiddleAndTail(to, mCameraToFacesMs);
    fprintf(to,
            "\n\"To faces\" is from when the camera had the frame until its faces were found.\n");
}

}  // namespace tools
