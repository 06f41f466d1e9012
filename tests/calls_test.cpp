// Calls between processes. Client and provider share this one here, so that a test sees both ends.

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <mutex>
#include <thread>

#include "host/limits.h"
#include "model/files.h"
#include "model/operands.h"
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
    const StreamConfiguration stream = configurationOf(Args{0, 0, 0, 1, 1, 3, 66, 77, 88});
    expectStatus(remote->configure(stream), Status::OK);
    StreamConfiguration kept = {};
    ASSERT_EQ(session->getConfiguration(kept), 0);
    EXPECT_EQ(inWords(kept), inWords(stream));

    const Files files;
    const CaptureRequest request = requestOf({10, 4, 23, 1, 1, 4, 3, 7, 3, 1, 8}, files.sessions);
    expectStatus(remote->processCaptureRequest(request), Status::OK);
    EXPECT_EQ(inWords(files, take()), inWords(files, CaptureRequest(request)));
    const CaptureResult result = resultOf({3, 4, 23, 3, 1, 9, 7, 6, 8, 15, 8}, files.sessions);
    session->sendCaptureResult(result);
    EXPECT_EQ(inWords(files, deliveries.waitFor(1)[0].result),
              inWords(files, CaptureResult(result)));
    FDNotifyMsg msg = {FDNotifyType::ERROR, 3, 1ULL << 60};
    session->sendNotify(msg);
    ASSERT_EQ(deliveries.notified().size(), 1U);
    EXPECT_EQ(inWords(deliveries.notified()[0]), inWords(msg));
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
    std::thread sending([&deaf] { deaf.sendUnread(rawMessage({kCall, 0, 1, 0})); });
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
