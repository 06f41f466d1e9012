#include "source/handover.h"

#include <android-base/thread_annotations.h>

#include <utility>

#include "host/unique_lock.h"

namespace camera {

void Handover::put(DueFrame&& frame) {
    std::optional<DueFrame> dropped;  // freed without the lock
    {
        const std::lock_guard<std::mutex> lock(mMutex);
        dropped = std::exchange(mNewest, std::move(frame));
        mStatus.picture = mNewest->shape.picture();
        mStatus.isBroken = false;
        ++mStatus.frames;
        if (dropped) ++mStatus.dropped;
        mIsWanted = false;
    }
    mForFilling.notify_one();
}

void Handover::breakDown(const std::string& reason) {
    {
        const std::lock_guard<std::mutex> lock(mMutex);
        if (mStatus.isBroken) return;
        mStatus.isBroken = true;
        mReason = reason;
        ++mBreakdowns;
    }
    mForFilling.notify_one();
}

void Handover::setRate(double framesPerSecond) {
    const std::lock_guard<std::mutex> lock(mMutex);
    mStatus.rate = framesPerSecond;
}

bool Handover::waitUntilWanted() {
    host::UniqueLock lock(mMutex);
    mForDecoding.wait(lock, [&]() REQUIRES(mMutex) { return mIsEnd || (mIsWanted && !mNewest); });
    return !mIsEnd;
}

Handover::News Handover::take(std::chrono::microseconds patience) {
    host::UniqueLock lock(mMutex);
    mForFilling.wait_for(lock, patience, [&]() REQUIRES(mMutex) { return mIsEnd || mNewest; });
    News news;
    news.frame = std::exchange(mNewest, std::nullopt);
    news.breakdowns = mBreakdowns;
    news.isBroken = mStatus.isBroken;
    news.reason = mReason;
    news.periodNs = static_cast<int64_t>(1e9 / mStatus.rate);
    news.isEnd = mIsEnd;
    return news;
}

void Handover::want(bool isWanted) {
    {
        const std::lock_guard<std::mutex> lock(mMutex);
        mIsWanted = isWanted && !mNewest;
    }
    if (isWanted) mForDecoding.notify_one();
}

void Handover::countDropped() {
    const std::lock_guard<std::mutex> lock(mMutex);
    ++mStatus.dropped;
}

void Handover::end() {
    {
        const std::lock_guard<std::mutex> lock(mMutex);
        mIsEnd = true;
    }
    mForFilling.notify_one();
    mForDecoding.notify_one();
}

CameraStatus Handover::status() const {
    const std::lock_guard<std::mutex> lock(mMutex);
    return mStatus;
}

}  // namespace camera
