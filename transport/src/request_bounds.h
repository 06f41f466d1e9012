#pragma once

#include <android/hardware/camera/device/3.2/types.h>

#include <cstddef>
#include <cstdint>
#include <mutex>
#include <set>

/**
 * What the provider holds for all clients of one server together: at most kMaxRequestsOnTheWay
 * requests, and kMaxBufferIds buffer ids that came with a handle. The session itself has no such
 * bounds, and a request with an empty handle costs its client no descriptor. Thread-safe.
 */
namespace host {

class RequestBounds {
public:
    using CaptureRequest = ::android::hardware::camera::device::V3_2::CaptureRequest;

    /** Reserves a place for a request before it goes to the session; freed again unless kept. */
    class Place {
    public:
        Place(RequestBounds& bounds, const CaptureRequest& request);
        ~Place();
        Place(const Place&) = delete;
        Place& operator=(const Place&) = delete;

        /** Why there is no place; null when there is one. */
        [[nodiscard]] const char* problem() const { return mProblem; }
        /** The session has accepted the request. */
        void keep() { mIsKept = true; }

    private:
        RequestBounds& mBounds;
        const char* mProblem;
        uint64_t mConfiguration = 0;
        bool mIsKept = false;
    };

    /** Results are about to be passed to a callback; they count as answers even if that fails. */
    void handedOver(size_t results);
    /** A configuration was accepted. */
    void restart();

private:
    // REQUIRES: mMutex is held.
    [[nodiscard]] bool takeIds(const CaptureRequest& request);

    std::mutex mMutex;
    // Guarded by mMutex.
    uint64_t mConfiguration = 0;  // the number of accepted configurations
    size_t mOnTheWay = 0;
    std::set<uint64_t> mIds;
};

}  // namespace host
