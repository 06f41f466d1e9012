#pragma once

#include <android/hardware/camera/device/3.2/types.h>
#include <android/hidl/base/1.0/IBase.h>
#include <vendor/zoru/zoruprovider/fdstream/1.0/types.h>

namespace vendor::zoru::zoruprovider::fdstream::V1_0 {

/**
 * The face-detection client's callback. Results come one at a time and in order from the session's
 * own thread, notifications from the provider's threads, possibly at the same time. What a method
 * receives, memory and descriptors, is released when it returns. It may call the session.
 */
struct IFDSessionCallback : public ::android::hidl::base::V1_0::IBase {
    static const char* descriptor;

    bool isRemote() const override;

    ::android::hardware::Return<void> interfaceChain(interfaceChain_cb callback) override;
    ::android::hardware::Return<void> interfaceDescriptor(interfaceDescriptor_cb callback) override;

    /** A filled buffer, or with BufferStatus::ERROR one that nobody filled. Always one result. */
    virtual ::android::hardware::Return<void> processCaptureResult(
        const ::android::hardware::hidl_vec<
            ::android::hardware::camera::device::V3_2::CaptureResult>& results) = 0;

    /** An event of the provider. Always one message. */
    virtual ::android::hardware::Return<void> notify(
        const ::android::hardware::hidl_vec<FDNotifyMsg>& msgs) = 0;
};

}  // namespace vendor::zoru::zoruprovider::fdstream::V1_0
