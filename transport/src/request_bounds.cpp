#include "request_bounds.h"

#include <algorithm>

#include "host/limits.h"

namespace host {

RequestBounds::Place::Place(RequestBounds& bounds, const CaptureRequest& request)
    : mBounds(bounds), mProblem(nullptr) {
    const std::lock_guard<std::mutex> lock(mBounds.mMutex);
    if (mBounds.mOnTheWay >= kMaxRequestsOnTheWay) {
        mProblem = "too many requests are on their way";
    } else if (!mBounds.takeIds(request)) {
        mProblem = "too many buffer ids came since the stream was configured";
    } else {
        ++mBounds.mOnTheWay;
        mConfiguration = mBounds.mConfiguration;
    }
}

RequestBounds::Place::~Place() {
    if (mProblem != nullptr) return;
    const std::lock_guard<std::mutex> lock(mBounds.mMutex);
    // A configuration that was accepted meanwhile has reset the count.
    const bool isForgotten = mConfiguration != mBounds.mConfiguration;
    if (mIsKept && isForgotten) ++mBounds.mOnTheWay;
    if (!mIsKept && !isForgotten && mBounds.mOnTheWay > 0) --mBounds.mOnTheWay;
}

bool RequestBounds::takeIds(const CaptureRequest& request) {
    for (const auto& buffer : request.outputBuffers) {
        if (buffer.buffer.getNativeHandle() == nullptr) continue;
        if (mIds.size() < kMaxBufferIds) {
            mIds.insert(buffer.bufferId);
        } else if (mIds.count(buffer.bufferId) == 0) {
            return false;
        }
    }
    return true;
}

void RequestBounds::handedOver(size_t results) {
    const std::lock_guard<std::mutex> lock(mMutex);
    mOnTheWay -= std::min(results, mOnTheWay);
}

void RequestBounds::restart() {
    const std::lock_guard<std::mutex> lock(mMutex);
    ++mConfiguration;
    mOnTheWay = 0;
    mIds.clear();
}

}  // namespace host
