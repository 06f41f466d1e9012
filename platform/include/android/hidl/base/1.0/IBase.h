#pragma once

#include <android/hidl/base/1.0/types.h>
#include <hidl/HidlSupport.h>
#include <hidl/Status.h>

#include <array>
#include <functional>

namespace android::hidl::base::V1_0 {

/** What every interface can do. The bodies here are those of a local object. */
struct IBase : virtual public ::android::RefBase {
    static const char* descriptor;

    using hash = std::array<uint8_t, 32>;
    using interfaceChain_cb =
        std::function<void(const ::android::hardware::hidl_vec<::android::hardware::hidl_string>&)>;
    using interfaceDescriptor_cb = std::function<void(const ::android::hardware::hidl_string&)>;
    using getHashChain_cb = std::function<void(const ::android::hardware::hidl_vec<hash>&)>;
    using getDebugInfo_cb = std::function<void(const DebugInfo&)>;

    virtual bool isRemote() const;

    virtual ::android::hardware::Return<void> interfaceChain(interfaceChain_cb callback);
    virtual ::android::hardware::Return<void> debug(
        const ::android::hardware::hidl_handle& fd,
        const ::android::hardware::hidl_vec<::android::hardware::hidl_string>& options);
    virtual ::android::hardware::Return<void> interfaceDescriptor(interfaceDescriptor_cb callback);
    virtual ::android::hardware::Return<void> getHashChain(getHashChain_cb callback);
    virtual ::android::hardware::Return<void> setHALInstrumentation();
    /** On a local object: whether a recipient was given. */
    virtual ::android::hardware::Return<bool> linkToDeath(
        const sp<::android::hardware::hidl_death_recipient>& recipient, uint64_t cookie);
    virtual ::android::hardware::Return<void> ping();
    virtual ::android::hardware::Return<void> getDebugInfo(getDebugInfo_cb callback);
    virtual ::android::hardware::Return<void> notifySyspropsChanged();
    virtual ::android::hardware::Return<bool> unlinkToDeath(
        const sp<::android::hardware::hidl_death_recipient>& recipient);
};

}  // namespace android::hidl::base::V1_0
