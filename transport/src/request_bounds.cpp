#include "request_bounds.h"

namespace host {

RequestBounds::Place::Place(RequestBounds& bounds, const CaptureRequest& request,
                            Clock::time_point now)
    : mBounds(bounds), mBrought(broughtBy(request)), mProblem(nullptr) {
    const std::lock_guard<std::mutex> lock(mBounds.mMutex);
    mProblem = mBounds.mRequests.problem(now);
    if (mProblem == nullptr && mBrought) mProblem = mBounds.mBuffers.problem(*mBrought);
    if (mProblem != nullptr) return;
    mAsked = mBounds.mRequests.add(request);
    if (mBrought) mBounds.mBuffers.add(*mBrought);
}

RequestBounds::Place::~Place() {
    if (mProblem != nullptr) return;
    const std::lock_guard<std::mutex> lock(mBounds.mMutex);
    // A configuration that was accepted meanwhile has forgotten what this one has brought.
    const bool isForgotten = !mBounds.mRequests.isOfNow(mAsked);
    if (mIsKept) {
        mBounds.mRequests.keep(mAsked);
        if (isForgotten && mBrought) mBounds.mBuffers.add(*mBrought);
    } else {
        mBounds.mRequests.takeBack(mAsked);
        if (!isForgotten && mBrought) mBounds.mBuffers.takeBack(*mBrought);
    }
}

void RequestBounds::handedOver(const ::android::hardware::hidl_vec<CaptureResult>& results,
                               Clock::time_point now) {
    const std::lock_guard<std::mutex> lock(mMutex);
    for (const auto& result : results)
        mRequests.handedOver(result, now);
}

void RequestBounds::restart(Clock::time_point now) {
    const std::lock_guard<std::mutex> lock(mMutex);
    mRequests.restart(now);
    mBuffers.clear();
}

}  // namespace host
