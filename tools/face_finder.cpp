#include "face_finder.h"

#include <algorithm>
#include <chrono>
#include <utility>

#include "figures.h"
#include "host/buffer.h"

namespace tools {

namespace {

constexpr int kUnsureFrames = 5;

}  // namespace

void FaceFinder::note(const camera::Told& told) {
    if (!told.picture) return;
    if (mUnsureFrames > 0) --mUnsureFrames;
    const bool isTurned = told.picture->isTurned;
    if (mIsTurned && *mIsTurned != isTurned) mUnsureFrames = kUnsureFrames;
    mIsTurned = isTurned;
}

Sight FaceFinder::look(const Answer& answer) {
    const camera::Told& told = answer.told;
    note(told);
    const host::Buffer& buffer = *answer.lent;
    const kit::FrameSize size = kit::sizeOf(buffer);
    Sight sight;
    const Clock::time_point start = Clock::now();
    const std::vector<camera::Rect> found =
        mDetector->find(buffer.lumaRow(0), size, buffer.geometry().stride);
    const Clock::time_point end = Clock::now();
    sight.detectionMs = inMilliseconds(end - start);
    const Clock::time_point due{std::chrono::nanoseconds(told.sensorNs.value_or(0))};
    if (told.sensorNs && due <= end) sight.cameraToFacesMs = inMilliseconds(end - due);

    const bool isMappable = told.view && told.picture && mUnsureFrames == 0;
    std::vector<camera::Rect> places = found;
    if (isMappable) {
        for (camera::Rect& place : places)
            place = camera::inPicture(place, size, *told.view, told.picture->isTurned);
        sight.places.emplace();
    }
    // A face that stays where it is in the picture is the same one, however the view moves.
    const std::vector<bool> counting = mSteady.counting(places);
    for (size_t index = 0; index < found.size(); ++index) {
        if (!counting[index]) continue;
        sight.faces.push_back(found[index]);
        if (isMappable) sight.places->push_back(places[index]);
    }
    return sight;
}

}  // namespace tools
