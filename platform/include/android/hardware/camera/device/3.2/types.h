#pragma once

#include <android/hardware/camera/common/1.0/types.h>
#include <android/hardware/graphics/common/1.0/types.h>
#include <hidl/HidlSupport.h>

#include <cstddef>
#include <cstdint>

/** The published records of android.hardware.camera.device@3.2, every field in its order. */
namespace android::hardware::camera::device::V3_2 {

using CameraMetadata = ::android::hardware::hidl_vec<uint8_t>;
using BufferUsageFlags = uint64_t;
using DataspaceFlags = int32_t;

enum class StreamType : uint32_t { OUTPUT = 0, INPUT = 1 };

enum class StreamRotation : uint32_t {
    ROTATION_0 = 0,
    ROTATION_90 = 1,
    ROTATION_180 = 2,
    ROTATION_270 = 3,
};

enum class StreamConfigurationMode : uint32_t {
    NORMAL_MODE = 0,
    CONSTRAINED_HIGH_SPEED_MODE = 1,
    VENDOR_MODE_0 = 0x8000,
    VENDOR_MODE_1 = 0x8001,
    VENDOR_MODE_2 = 0x8002,
    VENDOR_MODE_3 = 0x8003,
    VENDOR_MODE_4 = 0x8004,
    VENDOR_MODE_5 = 0x8005,
    VENDOR_MODE_6 = 0x8006,
    VENDOR_MODE_7 = 0x8007,
};

enum class BufferStatus : uint32_t { OK = 0, ERROR = 1 };

struct Stream final {
    int32_t id __attribute__((aligned(4)));
    StreamType streamType __attribute__((aligned(4)));
    uint32_t width __attribute__((aligned(4)));   // pixels
    uint32_t height __attribute__((aligned(4)));  // rows
    ::android::hardware::graphics::common::V1_0::PixelFormat format __attribute__((aligned(4)));
    BufferUsageFlags usage __attribute__((aligned(8)));
    DataspaceFlags dataSpace __attribute__((aligned(4)));
    StreamRotation rotation __attribute__((aligned(4)));
};

struct StreamConfiguration final {
    ::android::hardware::hidl_vec<Stream> streams __attribute__((aligned(8)));
    StreamConfigurationMode operationMode __attribute__((aligned(4)));
};

struct StreamBuffer final {
    int32_t streamId __attribute__((aligned(4)));
    uint64_t bufferId __attribute__((aligned(8)));
    ::android::hardware::hidl_handle buffer __attribute__((aligned(8)));
    BufferStatus status __attribute__((aligned(4)));
    ::android::hardware::hidl_handle acquireFence __attribute__((aligned(8)));
    ::android::hardware::hidl_handle releaseFence __attribute__((aligned(8)));
};

struct CaptureRequest final {
    uint32_t frameNumber __attribute__((aligned(4)));
    uint64_t fmqSettingsSize __attribute__((aligned(8)));
    CameraMetadata settings __attribute__((aligned(8)));
    StreamBuffer inputBuffer __attribute__((aligned(8)));
    ::android::hardware::hidl_vec<StreamBuffer> outputBuffers __attribute__((aligned(8)));
};

struct CaptureResult final {
    uint32_t frameNumber __attribute__((aligned(4)));
    uint64_t fmqResultSize __attribute__((aligned(8)));
    CameraMetadata result __attribute__((aligned(8)));
    ::android::hardware::hidl_vec<StreamBuffer> outputBuffers __attribute__((aligned(8)));
    StreamBuffer inputBuffer __attribute__((aligned(8)));
    uint32_t partialResult __attribute__((aligned(4)));
};

static_assert(sizeof(Stream) == 40 && offsetof(Stream, usage) == 24, "wrong layout");
static_assert(offsetof(Stream, rotation) == 36, "wrong layout");
static_assert(sizeof(StreamConfiguration) == 24, "wrong layout");
static_assert(offsetof(StreamConfiguration, operationMode) == 16, "wrong layout");
static_assert(sizeof(StreamBuffer) == 72 && offsetof(StreamBuffer, status) == 32, "wrong layout");
static_assert(offsetof(StreamBuffer, releaseFence) == 56, "wrong layout");
static_assert(sizeof(CaptureRequest) == 120 && offsetof(CaptureRequest, inputBuffer) == 32,
              "wrong layout");
static_assert(offsetof(CaptureRequest, outputBuffers) == 104, "wrong layout");
static_assert(sizeof(CaptureResult) == 128 && offsetof(CaptureResult, outputBuffers) == 32,
              "wrong layout");
static_assert(offsetof(CaptureResult, inputBuffer) == 48, "wrong layout");
static_assert(offsetof(CaptureResult, partialResult) == 120, "wrong layout");

}  // namespace android::hardware::camera::device::V3_2
