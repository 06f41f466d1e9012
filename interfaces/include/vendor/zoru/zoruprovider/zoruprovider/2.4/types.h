#pragma once

#include <hidl/HidlSupport.h>

#include <cstddef>
#include <cstdint>

/** The records of vendor.zoru.zoruprovider.zoruprovider@2.4 that the session keeps and forwards. */
namespace vendor::zoru::zoruprovider::zoruprovider::V2_4 {

/** A rectangle, in pixels of the frame. */
struct Crop final {
    int32_t x __attribute__((aligned(4)));
    int32_t y __attribute__((aligned(4)));
    int32_t width __attribute__((aligned(4)));
    int32_t height __attribute__((aligned(4)));
};

/** The rectangles that matter in a frame of frameWidth x frameHeight, and the people in it. */
struct SceneControl final {
    ::android::hardware::hidl_vec<Crop> crops __attribute__((aligned(8)));
    int32_t frameWidth __attribute__((aligned(4)));
    int32_t frameHeight __attribute__((aligned(4)));
    int32_t sceneId __attribute__((aligned(4)));     // for the provider's own use
    int32_t sceneFlags __attribute__((aligned(4)));  // for the provider's own use
    int32_t peopleCount __attribute__((aligned(4)));
};

/** How the view follows people. The session acts on OFF only: it resets the PTZ view. */
enum class TrackingMode : int32_t {
    OFF = 0,
    GROUP = 1,
    SPEAKER = 2,
    PRESENTER = 3,
};

/** How the tracking moves the view. The last four bytes carry no field. */
struct TrackControl final {
    int64_t timestampNs __attribute__((aligned(8)));  // of the sensor's clock
    int32_t trackId __attribute__((aligned(4)));
    Crop target __attribute__((aligned(4)));  // what is followed
    Crop bounds __attribute__((aligned(4)));  // what the view must not leave
    float pan __attribute__((aligned(4)));
    float tilt __attribute__((aligned(4)));
    float zoom __attribute__((aligned(4)));
    float speed __attribute__((aligned(4)));  // of the view, per second
};

static_assert(sizeof(Crop) == 16, "wrong layout");
static_assert(sizeof(SceneControl) == 40 && offsetof(SceneControl, sceneId) == 24, "wrong layout");
static_assert(offsetof(SceneControl, peopleCount) == 32, "wrong layout");
static_assert(sizeof(TrackControl) == 64 && alignof(TrackControl) == 8, "wrong layout");
static_assert(offsetof(TrackControl, speed) == 56, "wrong layout");

}  // namespace vendor::zoru::zoruprovider::zoruprovider::V2_4
