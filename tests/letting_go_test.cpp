// Letting go of what requests and results carry, which may take as long as a client likes.

#include <sys/mman.h>
#include <unistd.h>

#include <atomic>
#include <memory>
#include <vector>

#include "host/unique_fd.h"
#include "host/unique_handle.h"
#include "support/interposed.h"
#include "support/session_fixture.h"
#include "support/stress.h"

namespace testing_support {

namespace {

/** Of this file, and at will of something that cannot be duplicated. */
host::UniqueHandle fenceOf(int file, bool isBroken) {
    host::UniqueHandle handle(native_handle_create(isBroken ? 2 : 1, 0));
    handle->data[0] = dup(file);
    if (isBroken) handle->data[1] = -1;
    return handle;
}

}  // namespace

/** Another thread goes on meanwhile. */
class LettingGoTest : public SessionFixture {
protected:
    LettingGoTest() { clock.stopAt(now); }

    /** What `act` makes the session close, so often, it closes without a lock. */
    void expectClosed(const char* what, int times, const std::function<void()>& act) {
        SCOPED_TRACE(what);
        std::vector<std::unique_ptr<Meanwhile>> others;
        std::atomic<int> closes{0};
        const FileWatch watch(file.get(), Watching::CLOSES, [&] {
            const auto goOn = [this] {
                session->getTrackingMode();
                drivePass();
            };
            others.push_back(std::make_unique<Meanwhile>(goOn, Other::GOES_ON));
            ++closes;
        });
        act();
        EXPECT_TRUE(eventually([&] { return closes == times; })) << closes;
    }
    CaptureRequest fenced(uint64_t bufferId, const native_handle_t* handle) {
        CaptureRequest request = requestFor(1, bufferId, handle);
        request.inputBuffer.acquireFence = fence.get();
        request.outputBuffers[0].acquireFence = fence.get();
        return request;
    }
    void submitFenced() { EXPECT_EQ(session->handleCaptureRequest(fenced(1, buffer.handle())), 0); }
    void stepPastASecond() { clock.stopAt(now += 1000001); }

    int64_t now = 1700000000000000;
    WallClock clock;
    const host::UniqueFd file{memfd_create("fence", MFD_CLOEXEC)};
    const host::UniqueHandle fence = fenceOf(file.get(), false);
};

TEST_F(LettingGoTest, LetsGoOfARequestWithoutALock) {
    session->handleSetCallback(nullptr);  // what is to be delivered ends here
    configure();
    expectClosed("a refused request", 2,
                 [&] { EXPECT_EQ(session->handleCaptureRequest(fenced(9, nullptr)), -1); });
    const host::UniqueHandle half = fenceOf(file.get(), true);
    expectClosed("one whose handles cannot all be duplicated", 3, [&] {
        CaptureRequest request = fenced(9, buffer.handle());
        request.outputBuffers[0].releaseFence = half.get();
        EXPECT_EQ(session->handleCaptureRequest(request), -1);
    });
    expectClosed("a reconfiguration", 2, [&] {
        submitFenced();
        configure();
    });
    expectClosed("what the provider's record held", 2, [&] {
        submitFenced();
        ASSERT_EQ(submit(2, 1), 0);
        CaptureRequest request = take();
        EXPECT_EQ(session->getProcessCaptureRequest(request), 0);
        EXPECT_EQ(request.frameNumber, 2U);
    });
    expectClosed("a stale request", 2, [&] {
        submitFenced();
        stepPastASecond();
        drivePass();
    });
}

TEST_F(LettingGoTest, LetsGoOfAResultWithoutALock) {
    // Held in a delivery, the monitor finds a stale request in that pass and in the next.
    configure();
    auto closed = holdClient();
    roundTrip(3);
    deliveries.waitFor(1);
    expectClosed("a result, in a pass that answers a stale request too", 1, [&] {
        ASSERT_EQ(submit(4, 1), 0);
        ASSERT_EQ(submit(5, 1), 0);
        stepPastASecond();
        CaptureResult result = {};
        result.inputBuffer.releaseFence = fence.get();
        session->sendCaptureResult(result);
        closed.unlock();
    });
    EXPECT_EQ(deliveries.waitFor(3)[2].result.frameNumber, 5U);
    stop();
}

}  // namespace testing_support
