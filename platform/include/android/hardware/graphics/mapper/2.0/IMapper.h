#pragma once

#include <android/hardware/graphics/mapper/2.0/types.h>
#include <android/hidl/base/1.0/IBase.h>

#include <functional>
#include <string>

namespace android::hardware::graphics::mapper::V2_0 {

/**
 * The gralloc mapper, version 2.0. Results arrive through a callback that is called before the
 * operation returns. Any thread.
 */
struct IMapper : public ::android::hidl::base::V1_0::IBase {
    static const char* descriptor;

    struct Rect final {
        int32_t left;
        int32_t top;
        int32_t width;
        int32_t height;
    };

    using importBuffer_cb = std::function<void(Error error, void* buffer)>;
    using lock_cb = std::function<void(Error error, void* data)>;
    using lockYCbCr_cb = std::function<void(Error error, const YCbCrLayout& layout)>;
    using unlock_cb =
        std::function<void(Error error, const ::android::hardware::hidl_handle& releaseFence)>;

    virtual ::android::hardware::Return<void> importBuffer(
        const ::android::hardware::hidl_handle& rawHandle, importBuffer_cb callback) = 0;
    virtual ::android::hardware::Return<Error> freeBuffer(void* buffer) = 0;
    virtual ::android::hardware::Return<void> lock(
        void* buffer, uint64_t cpuUsage, const Rect& accessRegion,
        const ::android::hardware::hidl_handle& acquireFence, lock_cb callback) = 0;
    virtual ::android::hardware::Return<void> lockYCbCr(
        void* buffer, uint64_t cpuUsage, const Rect& accessRegion,
        const ::android::hardware::hidl_handle& acquireFence, lockYCbCr_cb callback) = 0;
    virtual ::android::hardware::Return<void> unlock(void* buffer, unlock_cb callback) = 0;

    /** The registered service, or null when there is none. */
    static sp<IMapper> getService(const std::string& serviceName = "default", bool getStub = false);
    static sp<IMapper> getService(const char* serviceName, bool getStub = false) {
        return getService(std::string(serviceName), getStub);
    }
    static sp<IMapper> getService(bool getStub) { return getService("default", getStub); }
};

}  // namespace android::hardware::graphics::mapper::V2_0
