#pragma once

#include <gtest/gtest.h>
#include <sys/types.h>

#include <atomic>
#include <condition_variable>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <mutex>
#include <string>
#include <vector>

#include "FDSession.h"
#include "frame.h"
#include "host/buffer.h"
#include "records.h"
#include "support/log_lines.h"

/** A session of the test's own, with a client that remembers what it was told. */
namespace testing_support {

using namespace vendor::zoru::zoruprovider::fdstream::V1_0;                  // NOLINT
using namespace vendor::zoru::zoruprovider::fdstream::V1_0::implementation;  // NOLINT
using android::hardware::hidl_handle;
using android::hardware::hidl_vec;
using android::hardware::camera::device::V3_2::BufferStatus;
using android::hardware::camera::device::V3_2::Stream;
using kit::requestFor;
using kit::resultFor;

constexpr const char* kSessionTag = "vendor.zoru.zoruprovider.fdstream@1.0-impl";

/** Asks again and again, for events that nobody tells; false after 10 s. */
bool eventually(const std::function<bool()>& condition);

/** Whether this thread of the process waits for something. */
bool isAsleep(pid_t thread);

/** Of the calling thread, as the kernel keeps it. */
std::string threadName();

/** What the client was told, kept beyond the callback's own life. Any thread. */
class Deliveries {
public:
    struct Delivery {
        CaptureResult result;
    };

    void add(const hidl_vec<CaptureResult>& results);
    void add(const hidl_vec<FDNotifyMsg>& msgs);
    void callbackDied();
    /** Waits for so many since the start, or fails after 10 s; gives all from the first asked for.
     */
    std::vector<Delivery> waitFor(size_t count, size_t first = 0);
    size_t count() const {
        const std::lock_guard<std::mutex> lock(mMutex);
        return mDeliveries.size();
    }
    std::vector<FDNotifyMsg> notified() const {
        const std::lock_guard<std::mutex> lock(mMutex);
        return mNotified;
    }
    /** Name of the thread on which the callback died; waits for it. */
    std::string waitForDeath();

private:
    mutable std::mutex mMutex;
    std::condition_variable mChanged;
    // Guarded by mMutex.
    std::vector<Delivery> mDeliveries;
    std::vector<FDNotifyMsg> mNotified;
    std::string mDeathThread;
};

/** The client's callback. `during`, if set, runs inside each call, on the calling thread. */
class Callback : public IFDSessionCallback {
public:
    explicit Callback(Deliveries& deliveries) : mDeliveries(deliveries) {}
    ~Callback() override { mDeliveries.callbackDied(); }

    Return<void> processCaptureResult(const hidl_vec<CaptureResult>& results) override {
        return answer(results);
    }
    Return<void> notify(const hidl_vec<FDNotifyMsg>& msgs) override { return answer(msgs); }

    std::function<void()> during;
    std::atomic<bool> failing{false};  ///< answers as if the client had died

private:
    template <typename Records>
    Return<void> answer(const Records& records) {
        mDeliveries.add(records);
        if (during) during();
        if (!failing) return {};
        return android::hardware::Status::fromStatusT(android::DEAD_OBJECT,
                                                      "the peer has closed the connection");
    }

    Deliveries& mDeliveries;
};

inline host::Buffer allocate(uint32_t width, uint32_t height,
                             const host::BufferGeometry& other = {}) {
    return kit::allocate({static_cast<int>(width), static_cast<int>(height)}, other);
}

/** The buffer as the session wraps it, with this usage. */
sp<GraphicBuffer> wrap(const host::Buffer& buffer, uint64_t usage = 0x33);

/** One stream, none of whose fields is 0, with a usage of more than 32 bits. */
StreamConfiguration configurationOf(int32_t id, uint32_t width = 16, uint32_t height = 8);

class SessionFixture : public testing::Test {
protected:
    explicit SessionFixture(const sp<FDSessionImpl>& tested = new FDSessionImpl);
    ~SessionFixture() override;

    /** Configures stream 0 and submits one request with a buffer of its size. */
    void configure(int32_t id = 0) { ASSERT_EQ(session->handleConfigure(configurationOf(id)), 0); }
    int32_t submit(uint32_t frameNumber, uint64_t bufferId) {
        return session->handleCaptureRequest(requestFor(frameNumber, bufferId, buffer.handle()));
    }
    CaptureRequest take() {
        CaptureRequest request = {};
        EXPECT_EQ(session->getProcessCaptureRequest(request), 0);
        return request;
    }
    /** Takes the oldest request and hands its buffer back. */
    void serveOne() { session->sendCaptureResult(resultFor(take())); }
    /** Ends the monitor, so that what a callback's `during` refers to may go. */
    void stop();
    /** From now on the client is inside each call until the lock is let go of. */
    std::unique_lock<std::mutex> holdClient();
    /** Makes the monitor go through one pass at once. */
    void drivePass() { session->sendCaptureResult(CaptureResult()); }

    std::mutex clientGate;
    LogLines log;
    Deliveries deliveries;
    const host::Buffer buffer;
    sp<FDSessionImpl> session;
    sp<IFDSession> client;
    sp<Callback> callback;
};

}  // namespace testing_support
