#pragma once

#include <android/hardware/camera/device/3.2/types.h>

#include <cstddef>
#include <cstdint>
#include <mutex>
#include <set>

/**
 * What the clients of one server may leave with the provider, all together: kMaxRequestsOnTheWay
 * requests, and kMaxBufferIds buffer ids that came with a handle. The session itself has no such
 * bound, and a request with an empty handle costs its client no descriptor. Thread-safe.
 */
namespace host {

class RequestBounds {
public:
    using CaptureRequest = ::android::hardware::camera::device::V3_2::CaptureRequest;

    /** Keeps a place for a request before the session has it, and gives it up if it is refused. */
    class Place {
    public:
        Place(RequestBounds& bounds, const CaptureRequest& request);
        ~Place();
        Place(const Place&) = delete;
        Place& operator=(const Place&) = delete;

        /** Why there is no place; null when there is one. */
        const char* problem() const { return mProblem; }
        /** The session has the request. */
        void keep() { mIsKept = true; }

    private:
        RequestBounds& mBounds;
        const char* mProblem;
        uint64_t mConfiguration = 0;
        bool mIsKept = false;
    };

    /** Results are handed to a callback, whatever becomes of them. */
    void handedOver(size_t results);
    /** A configuration was accepted. */
    void restart();

private:
    // REQUIRES: mMutex is held.
    bool takeIds(const CaptureRequest& request);

    std::mutex mMutex;
    // Guarded by mMutex.
    uint64_t mConfiguration = 0;  // which one it is
    size_t mOnTheWay = 0;
    std::set<uint64_t> mIds;
};

}  // namespace host
