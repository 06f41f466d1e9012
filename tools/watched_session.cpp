#include "watched_session.h"

#include <android/hardware/camera/common/1.0/types.h>
#include <android/hardware/camera/device/3.2/types.h>
#include <hidl/Status.h>
#include <vendor/zoru/zoruprovider/fdstream/1.0/IFDSessionCallback.h>

#include <cstdint>
#include <utility>

#include "host/accepted.h"
#include "host/channel.h"

namespace tools {

using android::sp;
using android::hardware::hidl_vec;
using android::hardware::camera::device::V3_2::CaptureRequest;
using android::hardware::camera::device::V3_2::CaptureResult;
using android::hardware::camera::device::V3_2::StreamBuffer;
using android::hardware::camera::device::V3_2::StreamConfiguration;
using vendor::zoru::zoruprovider::fdstream::V1_0::FDNotifyMsg;
using vendor::zoru::zoruprovider::fdstream::V1_0::IFDSessionCallback;

namespace {

/** A client's callback as it is, in whose place the session has this one. */
class WatchedCallback : public IFDSessionCallback {
public:
    template <typename T>
    using Return = android::hardware::Return<T>;

    WatchedCallback(sp<IFDSessionCallback> callback, std::shared_ptr<ClientWatch> watch)
        : mCallback(std::move(callback)), mWatch(std::move(watch)) {}

    Return<void> processCaptureResult(const hidl_vec<CaptureResult>& results) override {
        for (const CaptureResult& result : results) {
            for (const StreamBuffer& buffer : result.outputBuffers)
                mWatch->answered(buffer.bufferId);
        }
        return mCallback->processCaptureResult(results);
    }
    Return<void> notify(const hidl_vec<FDNotifyMsg>& msgs) override {
        return mCallback->notify(msgs);
    }

private:
    const sp<IFDSessionCallback> mCallback;
    const std::shared_ptr<ClientWatch> mWatch;
};

}  // namespace

WatchedSession::Return<WatchedSession::Status> WatchedSession::setCallback(
    const sp<IFDSessionCallback>& callback) {
    sp<IFDSessionCallback> watched;
    if (callback != nullptr) watched = new WatchedCallback(callback, mWatch);
    const std::lock_guard<std::mutex> lock(mTurn);
    Return<Status> answer = mSession->setCallback(watched);
    mWatch->callbackSet(host::callingProcess(), callback != nullptr);
    return answer;
}

WatchedSession::Return<WatchedSession::Status> WatchedSession::configure(
    const StreamConfiguration& configuration) {
    Return<Status> answer = mSession->configure(configuration);
    if (host::isAccepted(answer)) mWatch->configured();
    return answer;
}

WatchedSession::Return<WatchedSession::Status> WatchedSession::processCaptureRequest(
    const CaptureRequest& request) {
    const pid_t client = host::callingProcess();
    const bool isOne = request.outputBuffers.size() == 1;  // another number is refused
    const uint64_t bufferId = isOne ? request.outputBuffers[0].bufferId : 0;
    mWatch->asks(client, bufferId);
    Return<Status> answer = mSession->processCaptureRequest(request);
    mWatch->asked(client, bufferId, host::isAccepted(answer));
    return answer;
}

}  // namespace tools
