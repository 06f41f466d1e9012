#include <vendor/zoru/zoruprovider/fdstream/1.0/IFDSession.h>
#include <vendor/zoru/zoruprovider/fdstream/1.0/IFDSessionCallback.h>

namespace vendor::zoru::zoruprovider::fdstream::V1_0 {

using ::android::hardware::hidl_string;
using ::android::hardware::Return;
using ::android::hardware::Void;

const char* IFDSession::descriptor = "vendor.zoru.zoruprovider.fdstream@1.0::IFDSession";

bool IFDSession::isRemote() const {
    return false;
}

Return<void> IFDSession::interfaceChain(interfaceChain_cb callback) {
    callback({hidl_string(IFDSession::descriptor), hidl_string(IBase::descriptor)});
    return Void();
}

Return<void> IFDSession::interfaceDescriptor(interfaceDescriptor_cb callback) {
    callback(IFDSession::descriptor);
    return Void();
}

const char* IFDSessionCallback::descriptor =
    "vendor.zoru.zoruprovider.fdstream@1.0::IFDSessionCallback";

bool IFDSessionCallback::isRemote() const {
    return false;
}

Return<void> IFDSessionCallback::interfaceChain(interfaceChain_cb callback) {
    callback({hidl_string(IFDSessionCallback::descriptor), hidl_string(IBase::descriptor)});
    return Void();
}

Return<void> IFDSessionCallback::interfaceDescriptor(interfaceDescriptor_cb callback) {
    callback(IFDSessionCallback::descriptor);
    return Void();
}

}  // namespace vendor::zoru::zoruprovider::fdstream::V1_0
