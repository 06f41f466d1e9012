#pragma once

#include <android-base/thread_annotations.h>
#include <android/hardware/camera/device/3.2/types.h>

#include <chrono>
#include <mutex>
#include <optional>

#include "brought_buffers.h"
#include "requests_on_the_way.h"

/**
 * What the provider holds for all clients of one server together: at most kMaxRequestsOnTheWay
 * requests and kMaxLeftOver of earlier configurations, and kMaxBufferIds buffer ids and
 * kMaxBroughtBytes that came with a handle. The session itself has no such bounds, and a request
 * with an empty handle costs its client no descriptor. Thread-safe.
 */
namespace host {

class RequestBounds {
public:
    using CaptureRequest = RequestsOnTheWay::CaptureRequest;
    using CaptureResult = RequestsOnTheWay::CaptureResult;
    using Clock = std::chrono::steady_clock;

    /** Reserves a place for a request before it goes to the session; freed again unless kept. */
    class Place {
    public:
        Place(RequestBounds& bounds, const CaptureRequest& request,
              Clock::time_point now = Clock::now());
        ~Place();
        Place(const Place&) = delete;
        Place& operator=(const Place&) = delete;

        /** Why there is no place; null when there is one. */
        [[nodiscard]] const char* problem() const { return mProblem; }
        /** The session has accepted the request. */
        void keep() { mIsKept = true; }

    private:
        RequestBounds& mBounds;
        const std::optional<Brought> mBrought;
        const char* mProblem;
        RequestsOnTheWay::Asked mAsked = {};
        bool mIsKept = false;
    };

    /** Results are about to be passed to a callback; they count as answers even if that fails. */
    void handedOver(const ::android::hardware::hidl_vec<CaptureResult>& results,
                    Clock::time_point now = Clock::now());
    /** A configuration was accepted. */
    void restart(Clock::time_point now = Clock::now());

private:
    std::mutex mMutex;
    RequestsOnTheWay mRequests GUARDED_BY(mMutex);
    BroughtBuffers mBuffers GUARDED_BY(mMutex);
};

}  // namespace host
