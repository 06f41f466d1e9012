#pragma once

#include <gtest/gtest.h>
#include <pthread.h>
#include <sys/types.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstddef>
#include <cstdint>
#include <fstream>
#include <functional>
#include <mutex>
#include <string>
#include <thread>
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
using kit::allocate;
using kit::requestFor;
using kit::resultFor;

constexpr const char* kSessionTag = "vendor.zoru.zoruprovider.fdstream@1.0-impl";

/** Until when a test waits for an event. */
inline auto inTenSeconds() {
    return std::chrono::system_clock::now() + std::chrono::seconds(10);
}

/** Asks again and again, for events that nobody tells; false after 10 s. */
inline bool eventually(const std::function<bool()>& condition) {
    const auto limit = inTenSeconds();
    while (!condition()) {
        if (std::chrono::system_clock::now() > limit) return false;
        std::this_thread::yield();
    }
    return true;
}

/** Whether this thread of the process waits for something. */
inline bool isAsleep(pid_t thread) {
    std::ifstream file("/proc/self/task/" + std::to_string(thread) + "/stat");
    std::string text;
    std::getline(file, text);
    return text.find(") S ") != std::string::npos;
}

/** What the client was told, kept beyond the callback's own life. Any thread. */
class Deliveries {
public:
    void add(const hidl_vec<CaptureResult>& results) {
        const std::lock_guard<std::mutex> lock(mMutex);
        mDeliveries.push_back(results[0]);
        // Each has descriptors of its own, so of many the first ones are let go of.
        if (mDeliveries.size() > 512) mDeliveries[mDeliveries.size() - 513] = {};
        mChanged.notify_all();
    }
    void add(const hidl_vec<FDNotifyMsg>& msgs) {
        const std::lock_guard<std::mutex> lock(mMutex);
        EXPECT_EQ(msgs.size(), 1U);
        mNotified.push_back(msgs[0]);
    }
    void callbackDied() {
        const std::lock_guard<std::mutex> lock(mMutex);
        pthread_getname_np(pthread_self(), mDeathThread, sizeof(mDeathThread));
        mChanged.notify_all();
    }
    /** Waits for so many since the start, or fails after 10 s; gives all from the first asked for.
     */
    std::vector<CaptureResult> waitFor(size_t count, size_t first = 0) {
        std::unique_lock<std::mutex> lock(mMutex);
        EXPECT_TRUE(
            mChanged.wait_until(lock, inTenSeconds(), [&] { return mDeliveries.size() >= count; }))
            << mDeliveries.size() << " of " << count << " results came";
        mDeliveries.resize(std::max(count, mDeliveries.size()));
        return {mDeliveries.begin() + static_cast<ptrdiff_t>(first), mDeliveries.end()};
    }
    size_t count() const {
        const std::lock_guard<std::mutex> lock(mMutex);
        return mDeliveries.size();
    }
    std::vector<FDNotifyMsg> notified() const {
        const std::lock_guard<std::mutex> lock(mMutex);
        return mNotified;
    }
    /** Name of the thread on which the callback died; waits for it. */
    std::string waitForDeath() {
        std::unique_lock<std::mutex> lock(mMutex);
        EXPECT_TRUE(mChanged.wait_until(lock, inTenSeconds(), [&] { return *mDeathThread != 0; }));
        return mDeathThread;
    }

private:
    mutable std::mutex mMutex;
    std::condition_variable mChanged;
    // Guarded by mMutex.
    std::vector<CaptureResult> mDeliveries;
    std::vector<FDNotifyMsg> mNotified;
    char mDeathThread[16] = "";
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
        return android::hardware::Status::fromStatusT(android::DEAD_OBJECT, "gone");
    }

    Deliveries& mDeliveries;
};

/** The buffer as the session wraps it, with this usage. */
inline sp<GraphicBuffer> wrap(const host::Buffer& buffer, uint64_t usage = 0x33) {
    const host::BufferGeometry& size = buffer.geometry();
    return new GraphicBuffer(buffer.handle(), GraphicBuffer::CLONE_HANDLE, size.width, size.height,
                             35, 1, usage, size.width);
}

/** One stream, none of whose fields is 0, with a usage of more than 32 bits. */
inline StreamConfiguration configurationOf(int32_t id, kit::FrameSize size = {16, 8}) {
    StreamConfiguration configuration = kit::configurationOf(size, id);
    Stream& stream = configuration.streams[0];
    stream.streamType = decltype(stream.streamType)::INPUT;
    stream.usage = 0x100000033;
    stream.dataSpace = 77;
    stream.rotation = decltype(stream.rotation)::ROTATION_270;
    configuration.operationMode = decltype(configuration.operationMode)::VENDOR_MODE_1;
    return configuration;
}

class SessionFixture : public testing::Test {
protected:
    explicit SessionFixture(const sp<FDSessionImpl>& tested = new FDSessionImpl) : session(tested) {
        session->handleSetCallback(callback);
    }
    ~SessionFixture() override {
        if (session == nullptr) return;
        session->handleConfigure(configurationOf(0));  // gives every imported buffer back
        stop();
    }

    void configure(int32_t id = 0, kit::FrameSize size = {16, 8}) {
        ASSERT_EQ(session->handleConfigure(configurationOf(id, size)), 0);
    }
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
    void stop() {
        session->requestExit();
        drivePass();  // ends the wait
        session->join();
    }
    /** From now on the client is inside each call until the lock is let go of. */
    std::unique_lock<std::mutex> holdClient() {
        callback->during = [this] { const std::lock_guard<std::mutex> pass(clientGate); };
        return std::unique_lock<std::mutex>(clientGate);
    }
    /** Makes the monitor go through one pass at once. */
    void drivePass() { session->sendCaptureResult(CaptureResult()); }

    std::mutex clientGate;
    LogLines log;
    Deliveries deliveries;
    const host::Buffer buffer = allocate({16, 8});
    sp<FDSessionImpl> session;
    sp<IFDSession> client = session->getInterface();
    sp<Callback> callback = new Callback(deliveries);
};

}  // namespace testing_support
