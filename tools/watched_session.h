#pragma once

#include <vendor/zoru/zoruprovider/fdstream/1.0/IFDSession.h>

#include <memory>
#include <mutex>

#include "client_watch.h"

namespace tools {

/**
 * Serves a session as it is, and tells the watch of what its clients do. Keeps a reference to the
 * session, and to no callback: the session alone decides how long those live. Any thread.
 */
class WatchedSession : public vendor::zoru::zoruprovider::fdstream::V1_0::IFDSession {
public:
    using Status = android::hardware::camera::common::V1_0::Status;
    template <typename T>
    using Return = android::hardware::Return<T>;

    WatchedSession(android::sp<IFDSession> session, std::shared_ptr<ClientWatch> watch)
        : mSession(std::move(session)), mWatch(std::move(watch)) {}

    Return<Status> setCallback(
        const android::sp<vendor::zoru::zoruprovider::fdstream::V1_0::IFDSessionCallback>& callback)
        override;
    Return<Status> configure(
        const android::hardware::camera::device::V3_2::StreamConfiguration& configuration) override;
    Return<Status> processCaptureRequest(
        const android::hardware::camera::device::V3_2::CaptureRequest& request) override;

private:
    const android::sp<IFDSession> mSession;
    const std::shared_ptr<ClientWatch> mWatch;
    std::mutex mTurn;  // held while a callback is set, so that the watch hears the same order
};

}  // namespace tools
