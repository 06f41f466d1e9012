// Delivery by the monitor thread, and the sweep of stale requests.

#include <sys/time.h>

#include <array>
#include <numeric>
#include <thread>

#include "host/mapper.h"
#include "host/properties.h"
#include "support/interposed.h"
#include "support/session_fixture.h"

namespace testing_support {

class ResultsTest : public SessionFixture {
protected:
    ~ResultsTest() override { host::clearProperty("vendor.zoru.flipped"); }

    static constexpr int64_t kStart = 1700000000000000;  // microseconds

    /** Waits until the monitor has swept the waiting requests twice more: one whole pass. */
    void sweep() {
        drivePass();
        drivePass();
        EXPECT_TRUE(clock.waitForReads(2));
    }

    WallClock clock;
};

TEST_F(ResultsTest, DeliversOneAtATimeInOrderOnTheMonitorThread) {
    configure();
    for (const uint32_t frame : {5U, 3U, 4U})
        ASSERT_EQ(submit(frame, 1), 0);
    for (int i = 0; i < 3; ++i) {
        serveOne();
    }
    const auto came = deliveries.waitFor(3);
    for (size_t i = 0; i < 3; ++i) {
        EXPECT_EQ(came[i].batch, 1U);
        EXPECT_EQ(came[i].thread, "CaptureRequestM");
        EXPECT_EQ(came[i].result.frameNumber, (std::array{5U, 3U, 4U}[i]));
    }
}

TEST_F(ResultsTest, DropsAResultWithoutBuffersAndGoesOnAfterAFailedCall) {
    configure();
    host::setProperty("vendor.zoru.flipped", "true");
    drivePass();
    ASSERT_EQ(submit(1, 1), 0);
    callback->failing = true;
    serveOne();
    ASSERT_TRUE(log.waitUntilSaid(
        "E threadLoop: processCaptureResult transaction failed: Status(EX_TRANSACTION_FAILED): "
        "'DEAD_OBJECT: the peer has closed the connection'"));
    callback->failing = false;
    roundTrip(2);
    EXPECT_EQ(deliveries.waitFor(2)[1].result.frameNumber, 2U);
}

TEST_F(ResultsTest, DiscardsSilentlyWithoutACallback) {
    clock.stopAt(kStart);
    configure();
    session->handleSetCallback(nullptr);
    ASSERT_EQ(submit(1, 1), 0);
    ASSERT_EQ(submit(2, 1), 0);
    serveOne();
    log.clear();
    clock.stopAt(kStart + 1000001);
    // Consumed by the sweep.
    EXPECT_TRUE(eventually([&] {
        drivePass();
        return !session->isCaptureRequestReady();
    }));
    session->handleSetCallback(callback);
    roundTrip(3);
    EXPECT_EQ(deliveries.waitFor(1)[0].result.frameNumber, 3U);
    EXPECT_EQ(log.said(kSessionTag), Lines{"I handleSetCallback: \n"});
}

TEST_F(ResultsTest, AnswersARequestThatIsOlderThanASecondAndNoYounger) {
    clock.stopAt(kStart);
    configure();
    ASSERT_EQ(submit(9, 4), 0);
    // The wall clock may step back, too: then nothing is stale.
    for (const int64_t age : {int64_t{1000000}, int64_t{-3600000000}}) {
        clock.stopAt(kStart + age);
        sweep();
        EXPECT_EQ(deliveries.count(), 0U);
    }
    clock.stopAt(kStart + 1000001);  // seen at the end of an idle wait
    const CaptureResult error = deliveries.waitFor(1)[0].result;
    EXPECT_EQ(error.frameNumber, 9U);
    ASSERT_EQ(error.outputBuffers.size(), 1U);
    EXPECT_EQ(error.outputBuffers[0].streamId, 0);
    EXPECT_EQ(error.outputBuffers[0].bufferId, 4U);
    EXPECT_EQ(error.outputBuffers[0].status, BufferStatus::ERROR);
    EXPECT_NE(error.outputBuffers[0].buffer.getNativeHandle(), nullptr);
    EXPECT_FALSE(session->isCaptureRequestReady());
}

TEST_F(ResultsTest, AnswersStaleRequestsOneEachPassOldestFirst) {
    clock.stopAt(kStart);
    configure();
    for (uint32_t frame = 0; frame < 5; ++frame)
        ASSERT_EQ(submit(frame, frame), 0);
    const CaptureResult taken = resultFor(take());  // in time: never answered by the sweep
    auto closed = holdClient();
    session->sendCaptureResult(taken);
    deliveries.waitFor(1);
    clock.stopAt(kStart + 1000001);
    drivePass();  // drops this result, and sweeps all the same
    session->sendCaptureResult(taken);
    closed.unlock();
    const auto came = deliveries.waitFor(6);
    for (uint32_t i = 0; i < 6; ++i) {
        EXPECT_EQ(came[i].result.frameNumber, (std::array{0U, 1U, 2U, 0U, 3U, 4U}[i]));
    }
    ASSERT_EQ(submit(9, 9), 0);
    sweep();
    EXPECT_EQ(deliveries.count(), 6U);
    stop();
}

TEST_F(ResultsTest, KeepsADeliveredResultOutOfTheErrorResultOfTheSamePass) {
    clock.stopAt(kStart);
    configure();
    ASSERT_EQ(submit(1, 1), 0);
    CaptureRequest second = requestFor(2, 2, buffer.handle());
    second.settings = {1, 2, 3};
    second.fmqSettingsSize = 3;
    second.inputBuffer.streamId = 6;
    ASSERT_EQ(session->handleCaptureRequest(second), 0);
    CaptureResult full = resultFor(take());
    full.fmqResultSize = 77;
    full.result = {1, 2, 3};
    full.partialResult = 3;
    full.inputBuffer.streamId = 5;
    full.inputBuffer.bufferId = 55;
    full.outputBuffers.resize(2);
    // The clock steps while the result is being delivered, so the sweep of that very pass is due.
    callback->during = [&] { clock.stopAt(kStart + 1000001); };
    session->sendCaptureResult(full);
    const auto came = deliveries.waitFor(2);
    EXPECT_EQ(came[0].result.outputBuffers.size(), 2U);
    const CaptureResult& error = came[1].result;
    EXPECT_EQ(error.frameNumber, 2U);
    EXPECT_EQ(error.fmqResultSize, 0U);
    EXPECT_EQ(error.result.size(), 0U);
    EXPECT_EQ(error.partialResult, 0U);
    EXPECT_EQ(error.inputBuffer.streamId, -1);
    EXPECT_EQ(error.inputBuffer.bufferId, 0U);
    EXPECT_EQ(error.outputBuffers.size(), 1U);
    stop();
}

TEST_F(ResultsTest, TurnsADeliveredFrameWhenThePropertySays) {
    clock.stopAt(kStart);
    configure();
    const auto fill = [this] {
        std::iota(buffer.bytes(), buffer.bytes() + buffer.size(), uint8_t{0});
    };
    const auto isTurned = [this] { return buffer.lumaRow(0)[0] == 127; };
    size_t delivered = 0;
    const auto deliverOne = [&](const char* property) {
        fill();
        host::setProperty("vendor.zoru.flipped", property);
        roundTrip(1);
        deliveries.waitFor(++delivered);
        return isTurned();
    };
    EXPECT_FALSE(deliverOne("false"));
    EXPECT_TRUE(deliverOne("true"));  // read anew for each result
    EXPECT_FALSE(deliverOne(" true"));

    // An id that the registry does not know, and an error result: delivered as they are.
    fill();
    host::setProperty("vendor.zoru.flipped", "1");
    CaptureResult unknown = resultFor(requestFor(2, 42, buffer.handle()));
    session->sendCaptureResult(unknown);
    deliveries.waitFor(4);
    ASSERT_EQ(submit(3, 1), 0);
    clock.stopAt(kStart + 1000001);
    drivePass();
    deliveries.waitFor(5);
    EXPECT_FALSE(isTurned());

    // Turned even when nobody is there to see it.
    session->handleSetCallback(nullptr);
    const int64_t unlocks = host::mapperCounters().unlocks;
    roundTrip(4);
    EXPECT_TRUE(eventually([&] { return host::mapperCounters().unlocks > unlocks; }));
    EXPECT_TRUE(isTurned());
}

}  // namespace testing_support
