// Calls between processes. Client and provider share this one here, so that a test sees both ends.

#include <gtest/gtest.h>
#include <sys/eventfd.h>

#include <atomic>
#include <chrono>
#include <cstring>
#include <mutex>
#include <thread>

#include "host/limits.h"
#include "support/interposed.h"
#include "support/transport_fixture.h"

namespace testing_support {

namespace {
using CallsTest = TransportFixture;
}  // namespace

TEST_F(CallsTest, CarriesEveryFieldAndEveryDescriptor) {
    EXPECT_TRUE(remote->isRemote());
    EXPECT_TRUE(remote->ping().isOk());
    setUpStream();
    StreamConfiguration kept = {};
    const StreamConfiguration sent = configurationOf(0);
    ASSERT_EQ(session->getConfiguration(kept), 0);
    // NOLINTNEXTLINE(bugprone-suspicious-memory-comparison): both value-initialised, padding too
    EXPECT_EQ(memcmp(&kept.streams[0], &sent.streams[0], sizeof(Stream)), 0);
    EXPECT_EQ(kept.operationMode, sent.operationMode);

    native_handle_t* const fence = native_handle_create(2, 3);
    for (int* const fd : {&fence->data[0], &fence->data[1]})
        *fd = eventfd(0, EFD_CLOEXEC);
    fence->data[4] = 77;
    CaptureRequest request = requestFor(9, UINT64_MAX, buffer.handle());
    request.fmqSettingsSize = 5;
    request.settings = {1, 2, 3};
    request.inputBuffer.bufferId = 8;
    request.outputBuffers[0].acquireFence.setTo(fence, true);
    expectStatus(remote->processCaptureRequest(request), Status::OK);
    const CaptureRequest taken = take();
    EXPECT_EQ(taken.frameNumber, 9U);
    EXPECT_EQ(taken.fmqSettingsSize, 5U);
    EXPECT_TRUE(taken.settings == request.settings);
    EXPECT_EQ(taken.inputBuffer.streamId, -1);
    EXPECT_EQ(taken.inputBuffer.bufferId, 8U);
    ASSERT_NE(taken.outputBuffers[0].acquireFence.getNativeHandle(), nullptr);
    EXPECT_EQ(taken.outputBuffers[0].acquireFence->numFds, 2);
    EXPECT_EQ(taken.outputBuffers[0].acquireFence->data[4], 77);

    CaptureResult result = resultFor(taken);
    result.fmqResultSize = 6;
    result.result = {4, 5};
    result.partialResult = 1;
    session->sendCaptureResult(result);
    const CaptureResult came = deliveries.waitFor(1)[0].result;
    EXPECT_EQ(came.frameNumber, 9U);
    EXPECT_EQ(came.fmqResultSize, 6U);
    EXPECT_TRUE(came.result == result.result);
    EXPECT_EQ(came.partialResult, 1U);
    EXPECT_EQ(came.outputBuffers[0].bufferId, UINT64_MAX);
    EXPECT_EQ(came.outputBuffers[0].acquireFence->numFds, 2);
    FDNotifyMsg msg = {FDNotifyType::ERROR, 3, 1ULL << 60};
    session->sendNotify(msg);
    ASSERT_EQ(deliveries.notified().size(), 1U);
    EXPECT_EQ(memcmp(&deliveries.notified()[0], &msg, sizeof(msg)), 0);
}

TEST_F(CallsTest, LetsTheClientCallFromInsideItsCallbackFromBothThreads) {
    WallClock clock;
    clock.stopAt(1);  // no request grows stale, however slow the machine is
    // The next request goes out from inside; the provider's thread notifies at the same time.
    constexpr uint32_t kFrames = 200;
    std::atomic<uint32_t> next{2};
    callback->during = [&] {
        // No lock is held: another thread gets through meanwhile.
        std::thread([&] { session->getTrackingMode(); }).join();
        const uint32_t frame = next++;
        if (frame <= kFrames) {
            expectStatus(remote->processCaptureRequest(requestFor(frame, 1, nullptr)), Status::OK);
        }
    };
    setUpStream();
    expectStatus(remote->processCaptureRequest(requestFor(1, 1, buffer.handle())), Status::OK);
    uint32_t served = 0;
    EXPECT_TRUE(eventually([&] {
        notify();
        CaptureRequest request = {};
        if (session->getProcessCaptureRequest(request) != 0) return false;
        session->sendCaptureResult(resultFor(request));
        return ++served == kFrames;
    }));
    deliveries.waitFor(kFrames);
    endCallback();
}

TEST_F(CallsTest, WaitsForASilentClientOnceAndThenNoMore) {
    // Takes as long as the bounded wait, which is what it is about.
    std::mutex gate;
    std::unique_lock<std::mutex> closed(gate);
    callback->during = [&gate] { const std::lock_guard<std::mutex> pass(gate); };
    setUpStream();
    expectStatus(remote->processCaptureRequest(requestFor(1, 1, buffer.handle())), Status::OK);
    RawClient deaf = connectRaw();  // so is one that does not read what it is answered
    std::thread sending([&deaf] { deaf.sendUnread(message({kCall, 0, 1, 0})); });
    const auto start = std::chrono::steady_clock::now();
    serveOne();  // the monitor waits ...
    deliveries.waitFor(1);
    notify();  // ... and so does this thread, each on its own account
    const auto waited = std::chrono::steady_clock::now() - start;
    EXPECT_GE(waited, host::kCallPatience - std::chrono::milliseconds(100));
    EXPECT_LT(waited, 2 * host::kCallPatience);
    EXPECT_TRUE(
        log.waitFor("threadLoop: processCaptureResult transaction failed: "
                    "Status(EX_TRANSACTION_FAILED): 'TIMED_OUT: no answer within 1000 ms'"));
    const auto before = std::chrono::steady_clock::now();
    for (int i = 0; i < 100; ++i)
        notify();
    EXPECT_LT(std::chrono::steady_clock::now() - before, host::kCallPatience);
    sending.join();
    EXPECT_EQ(linesWith("E a channel ends: the peer does not read its answers"), 1);
    closed.unlock();
    EXPECT_TRUE(remote->ping().isOk());  // its own calls are another channel
    endCallback();
}

}  // namespace testing_support
