#pragma once

#include <pthread.h>
#include <vendor/zoru/zoruprovider/fdstream/1.0/IFDSessionCallback.h>

#include <condition_variable>
#include <cstdint>
#include <cstring>
#include <deque>
#include <mutex>
#include <thread>

#include "FDSession.h"
#include "bench.h"
#include "records.h"

/** A session of the bench's own, what goes through it, and how threads wait for one another. */
namespace bench {

using namespace vendor::zoru::zoruprovider::fdstream::V1_0;                  // NOLINT
using namespace vendor::zoru::zoruprovider::fdstream::V1_0::implementation;  // NOLINT

constexpr kit::FrameSize kTiny = {64, 32};
constexpr kit::FrameSize k720p = kit::kClipSize;

/**
 * A 720p frame in packed memory that carries its number, so that who gets a copy can tell whether
 * it is the right one. For one thread.
 */
class MarkedFrame {
public:
    /** The frame of this number, good until another one is asked for. */
    uint8_t* numbered(uint32_t frameNumber) {
        // The first luma and the last chroma.
        memcpy(mPacked.data(), &frameNumber, sizeof(frameNumber));
        memcpy(mPacked.data() + size() - sizeof(frameNumber), &frameNumber, sizeof(frameNumber));
        return mPacked.data();
    }
    size_t size() const { return mPacked.size(); }

    /** Whether packed memory holds this frame: by its marks, or by every byte. */
    bool isIn(const uint8_t* packed, uint32_t frameNumber, bool everyByte) {
        const uint8_t* const own = numbered(frameNumber);
        const size_t mark = sizeof(frameNumber);
        const size_t last = size() - mark;
        return memcmp(packed, own, everyByte ? size() : mark) == 0 &&
               memcmp(packed + last, own + last, mark) == 0;
    }

private:
    kit::Frame mPacked = kit::patternOf(k720p);
};

/**
 * A session that ends, its thread too, with this object, and both ends of it: the client's requests
 * and the provider's answers. What is refused, lost or out of order throws Wrong.
 */
class OwnSession {
public:
    OwnSession() { configure(); }
    ~OwnSession() {
        mSession->handleSetCallback(nullptr);
        configure();
        mSession->requestExit();
        mSession->sendCaptureResult(CaptureResult());  // ends the wait
        mSession->join();
    }
    OwnSession(const OwnSession&) = delete;
    OwnSession& operator=(const OwnSession&) = delete;

    FDSessionImpl* operator->() const { return mSession.get(); }

    /** The session forgets its requests and gives every buffer back. */
    void configure() { mSession->handleConfigure(kit::configurationOf(kTiny)); }
    void submit(uint64_t bufferId, const native_handle_t* handle = nullptr) {
        const CaptureRequest request = kit::requestFor(mSubmitted++, bufferId, handle);
        expect(mSession->handleCaptureRequest(request) == 0);
    }
    CaptureRequest take() {
        CaptureRequest request;
        expect(mSession->getProcessCaptureRequest(request) == 0 &&
               request.frameNumber == mTaken++ &&
               request.outputBuffers[0].buffer.getNativeHandle() != nullptr);
        return request;
    }
    void pass(uint64_t bufferId) {
        submit(bufferId);
        take();
    }
    /** With a buffer that the client lets go of afterwards. */
    void submitNew(uint64_t bufferId) { submit(bufferId, kit::allocate(kTiny).handle()); }
    void passNew(uint64_t bufferId) {
        submitNew(bufferId);
        take();
    }
    /** A request of somebody else's counting, there and taken; false when it was refused. */
    bool pass(const CaptureRequest& request, CaptureRequest& taken) const {
        return mSession->handleCaptureRequest(request) == 0 &&
               mSession->getProcessCaptureRequest(taken) == 0;
    }
    /** Takes what is left, in whatever order. */
    void startAgain() {
        for (CaptureRequest request; mSession->getProcessCaptureRequest(request) == 0;) {
        }
        mTaken = mSubmitted;
    }

private:
    const sp<FDSessionImpl> mSession = new FDSessionImpl;
    uint32_t mSubmitted = 0;
    uint32_t mTaken = 0;
};

/** A client's callback that hands each result on, on the thread that brings it. */
class ResultCallback : public IFDSessionCallback {
public:
    using Take = std::function<void(const CaptureResult& result)>;

    explicit ResultCallback(Take take) : mTake(std::move(take)) {}

    Return<void> processCaptureResult(
        const android::hardware::hidl_vec<CaptureResult>& results) override {
        mTake(results[0]);
        return {};
    }
    Return<void> notify(const android::hardware::hidl_vec<FDNotifyMsg>& /*msgs*/) override {
        return {};
    }

private:
    const Take mTake;
};

/** Whether a result has its buffer back, filled. */
inline bool isFilled(const CaptureResult& result) {
    using android::hardware::camera::device::V3_2::BufferStatus;
    return result.outputBuffers.size() == 1 && result.outputBuffers[0].status == BufferStatus::OK &&
           result.outputBuffers[0].buffer.getNativeHandle() != nullptr;
}

/** Counts what comes, on any thread, and lets one thread wait for it. */
class Arrivals {
public:
    /** Another one has come; `right`: it is the one that was to come. */
    void add(bool right) {
        const Clock::time_point now = Clock::now();
        const std::lock_guard<std::mutex> lock(mMutex);
        ++mCount;
        mLast = now;
        mRight = mRight && right;
        if (!mRight || mCount == mWanted) mChanged.notify_one();
    }
    uint32_t count() {
        const std::lock_guard<std::mutex> lock(mMutex);
        return mCount;
    }
    /**
     * Waits until so many have come. Gives the time when the last one came; throws Wrong when one
     * was wrong, or does not come for 20 seconds.
     */
    Clock::time_point waitFor(uint32_t count) {
        std::unique_lock<std::mutex> lock(mMutex);
        mWanted = count;
        mChanged.wait_for(lock, std::chrono::seconds(20),
                          [&] { return !mRight || mCount >= count; });
        expect(mRight && mCount >= count);
        return mLast;
    }

private:
    std::mutex mMutex;
    std::condition_variable mChanged;
    // Guarded by mMutex.
    uint32_t mCount = 0;
    uint32_t mWanted = 0;
    bool mRight = true;
    Clock::time_point mLast;
};

/** A client whose results are to come whole and in order, from frame 0 on. */
class Receiver {
public:
    const sp<IFDSessionCallback>& callback() const { return mCallback; }
    /** As Arrivals do. */
    Clock::time_point waitFor(uint32_t count) { return mArrivals.waitFor(count); }

private:
    Arrivals mArrivals;
    const sp<IFDSessionCallback> mCallback =
        new ResultCallback([this, next = uint32_t{0}](const CaptureResult& result) mutable {
            mArrivals.add(result.frameNumber == next++ && isFilled(result));
        });
};

/** When a waiting thread is told: as the session has to tell it, or as is best for both. */
enum class Notify { UnderMutex, AfterMutex };

/** Hands items from one thread to another. */
template <typename Item>
class HandOff {
public:
    void push(Item item, Notify notify = Notify::UnderMutex) {
        std::unique_lock<std::mutex> lock(mMutex);
        mItems.push_back(std::move(item));
        if (notify == Notify::AfterMutex) lock.unlock();
        mChanged.notify_all();
    }
    /** `idleWait`: how long one wait takes at most; without it as long as it takes. */
    Item pop(std::optional<std::chrono::milliseconds> idleWait = std::nullopt) {
        std::unique_lock<std::mutex> lock(mMutex);
        while (mItems.empty()) {
            if (idleWait) {
                mChanged.wait_until(lock, std::chrono::system_clock::now() + *idleWait);
            } else {
                mChanged.wait(lock);
            }
        }
        Item item = std::move(mItems.front());
        mItems.pop_front();
        return item;
    }

private:
    std::mutex mMutex;
    std::condition_variable mChanged;
    std::deque<Item> mItems;  // guarded by mMutex
};

/** A thread that takes what it is handed, one after the other, until this object goes. */
template <typename Item>
class Worker {
public:
    explicit Worker(std::function<void(Item& item)> take,
                    std::optional<std::chrono::milliseconds> idleWait = std::nullopt)
        : mThread([this, take = std::move(take), idleWait] {
              while (std::optional<Item> item = mItems.pop(idleWait))
                  take(*item);
          }) {}
    ~Worker() {
        mItems.push(std::nullopt);
        mThread.join();
    }

    void push(Item item, Notify notify = Notify::UnderMutex) {
        mItems.push(std::move(item), notify);
    }
    void setName(const char* name) { pthread_setname_np(mThread.native_handle(), name); }

private:
    HandOff<std::optional<Item>> mItems;  // without a value: the end
    std::thread mThread;
};

}  // namespace bench
