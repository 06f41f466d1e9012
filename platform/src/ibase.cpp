#include <android/hidl/base/1.0/IBase.h>
#include <unistd.h>

namespace android::hidl::base::V1_0 {

using ::android::hardware::hidl_death_recipient;
using ::android::hardware::hidl_handle;
using ::android::hardware::hidl_string;
using ::android::hardware::hidl_vec;
using ::android::hardware::Return;
using ::android::hardware::Void;

const char* IBase::descriptor = "android.hidl.base@1.0::IBase";

bool IBase::isRemote() const {
    return false;
}

Return<void> IBase::interfaceChain(interfaceChain_cb callback) {
    callback({hidl_string(descriptor)});
    return Void();
}

Return<void> IBase::debug(const hidl_handle& /*fd*/, const hidl_vec<hidl_string>& /*options*/) {
    return Void();
}

Return<void> IBase::interfaceDescriptor(interfaceDescriptor_cb callback) {
    callback(descriptor);
    return Void();
}

Return<void> IBase::getHashChain(getHashChain_cb callback) {
    callback({});
    return Void();
}

Return<void> IBase::setHALInstrumentation() {
    return Void();
}

Return<bool> IBase::linkToDeath(const sp<hidl_death_recipient>& recipient, uint64_t /*cookie*/) {
    return recipient != nullptr;
}

Return<void> IBase::ping() {
    return Void();
}

Return<void> IBase::getDebugInfo(getDebugInfo_cb callback) {
    callback({getpid(), reinterpret_cast<uint64_t>(this), DebugInfo::Architecture::IS_64BIT});
    return Void();
}

Return<void> IBase::notifySyspropsChanged() {
    return Void();
}

Return<bool> IBase::unlinkToDeath(const sp<hidl_death_recipient>& recipient) {
    return recipient != nullptr;
}

}  // namespace android::hidl::base::V1_0
