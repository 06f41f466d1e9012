#pragma once

#include <android/hardware/camera/common/1.0/types.h>
#include <android/hardware/camera/device/3.2/types.h>
#include <android/hidl/base/1.0/IBase.h>
#include <vendor/zoru/zoruprovider/fdstream/1.0/IFDSessionCallback.h>

namespace vendor::zoru::zoruprovider::fdstream::V1_0 {

/**
 * The face-detection client's side of the session: a second stream of camera frames in the client's
 * own buffers. Any thread may call. Every operation answers INTERNAL_ERROR once the session is
 * gone.
 */
struct IFDSession : public ::android::hidl::base::V1_0::IBase {
    static const char* descriptor;

    bool isRemote() const override;

    ::android::hardware::Return<void> interfaceChain(interfaceChain_cb callback) override;
    ::android::hardware::Return<void> interfaceDescriptor(interfaceDescriptor_cb callback) override;

    /** Sets the callback for results and notifications; null removes it. Answers OK. */
    virtual ::android::hardware::Return<::android::hardware::camera::common::V1_0::Status>
    setCallback(const ::android::sp<IFDSessionCallback>& callback) = 0;

    /**
     * Configures the stream; ILLEGAL_ARGUMENT unless there is exactly one. Requests that still wait
     * are dropped without an answer, and all buffers that the client has passed are released.
     */
    virtual ::android::hardware::Return<::android::hardware::camera::common::V1_0::Status>
    configure(
        const ::android::hardware::camera::device::V3_2::StreamConfiguration& configuration) = 0;

    /**
     * Asks for one frame in the client's own buffer: exactly one output buffer, of the configured
     * stream. The handle goes with the first request that names the buffer's id, and remains owned
     * by the caller. ILLEGAL_ARGUMENT when the request is refused; otherwise the answer comes
     * through the callback, within about a second if nobody fills the buffer.
     */
    virtual ::android::hardware::Return<::android::hardware::camera::common::V1_0::Status>
    processCaptureRequest(
        const ::android::hardware::camera::device::V3_2::CaptureRequest& request) = 0;
};

}  // namespace vendor::zoru::zoruprovider::fdstream::V1_0
