#pragma once

#include <android/hardware/camera/device/3.2/types.h>
#include <vendor/zoru/zoruprovider/fdstream/1.0/types.h>

#include "host/wire.h"

/** The fields of each record that is sent, in their order, and the fewest bytes that they take. */
namespace host {

template <>
struct Fields<::android::hardware::camera::device::V3_2::Stream> {
    static constexpr size_t kSmallest = 36;
    template <typename Archive, typename Record>
    static void visit(Archive& archive, Record& r) {
        archive(r.id, r.streamType, r.width, r.height, r.format, r.usage, r.dataSpace, r.rotation);
    }
};

template <>
struct Fields<::android::hardware::camera::device::V3_2::StreamConfiguration> {
    static constexpr size_t kSmallest = 8;
    template <typename Archive, typename Record>
    static void visit(Archive& archive, Record& r) {
        archive(r.streams, r.operationMode);
    }
};

template <>
struct Fields<::android::hardware::camera::device::V3_2::StreamBuffer> {
    static constexpr size_t kSmallest = 19;
    template <typename Archive, typename Record>
    static void visit(Archive& archive, Record& r) {
        archive(r.streamId, r.bufferId, memory(r.buffer), r.status, fence(r.acquireFence),
                fence(r.releaseFence));
    }
};

template <>
struct Fields<::android::hardware::camera::device::V3_2::CaptureRequest> {
    static constexpr size_t kSmallest = 39;
    template <typename Archive, typename Record>
    static void visit(Archive& archive, Record& r) {
        archive(r.frameNumber, r.fmqSettingsSize, r.settings, r.inputBuffer, r.outputBuffers);
    }
};

template <>
struct Fields<::android::hardware::camera::device::V3_2::CaptureResult> {
    static constexpr size_t kSmallest = 43;
    template <typename Archive, typename Record>
    static void visit(Archive& archive, Record& r) {
        archive(r.frameNumber, r.fmqResultSize, r.result, r.outputBuffers, r.inputBuffer,
                r.partialResult);
    }
};

template <>
struct Fields<::vendor::zoru::zoruprovider::fdstream::V1_0::FDNotifyMsg> {
    static constexpr size_t kSmallest = 16;
    template <typename Archive, typename Record>
    static void visit(Archive& archive, Record& r) {
        archive(r.type, r.frameNumber, r.value);
    }
};

}  // namespace host
