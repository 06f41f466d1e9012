// Where the session holds its locks while it calls others, and where it waits.

#include <chrono>
#include <ctime>
#include <functional>
#include <optional>
#include <string>
#include <utility>

#include "host/log.h"
#include "host/mapper.h"
#include "host/properties.h"
#include "support/driven_session.h"
#include "support/spy_mapper.h"

namespace testing_support {

namespace {

/** Runs `inside` once while this line of the log is written. */
struct GateSink : public host::LogSink {
    void write(const host::LogLine& line) override {
        if (line.text.find(text) == std::string::npos) return;
        if (const auto once = std::exchange(inside, nullptr)) once();
    }
    std::string text;
    std::function<void()> inside;
};

}  // namespace

class HeldLocksTest : public DrivenSession {
protected:
    HeldLocksTest() {
        configure();
        session->setSceneCallback(&observer);
    }
    ~HeldLocksTest() override { host::clearProperty("vendor.zoru.flipped"); }

    /** What `other` does on another thread while `act` is at this place. */
    void expectAt(const char* place, Other expected, Probe& hook, const Probe& act,
                  const Probe& other) {
        SCOPED_TRACE(place);
        where = place;
        std::optional<Meanwhile> meanwhile;
        hook = [&] {
            if (!meanwhile) meanwhile.emplace(other, expected);
        };
        act();
        hook = nullptr;
        EXPECT_TRUE(meanwhile.has_value());
    }
    void expectLocked(const char* place, Probe& hook, const Probe& act) {
        expectAt(place, Other::WAITS, hook, act, [this] { session->getTrackingMode(); });
    }
    /** Neither the session nor its queue. */
    void expectFree(const char* place, Probe& hook, const Probe& act) {
        expectAt(place, Other::GOES_ON, hook, act, [this] {
            session->getTrackingMode();
            session->sendCaptureResult({});
        });
        pass();  // takes that
    }
};

TEST_F(HeldLocksTest, HoldsItsLocksInsideTheObserverAndTheMapperAndNowhereElse) {
    const auto deliver = [this] {
        session->sendCaptureResult(resultOf(1));
        pass();
    };
    expectLocked("onSceneControl", observer.inside, [&] { session->setSceneControl({}); });
    expectLocked("onPTZControl", observer.inside, [&] { session->setPTZControl({}); });
    expectLocked("onTrackingMode", observer.inside,
                 [&] { session->setTrackingMode(TrackingMode::GROUP); });
    expectFree("onTrackControl", observer.inside, [&] { session->setTrackControl({}); });
    expectLocked("importBuffer", sessionMapper().during, [&] { submit(1, 1); });
    expectFree("processCaptureResult of an error", callback->during, [&] { pass(); });
    FDNotifyMsg msg = {};
    expectFree("notify", callback->during, [&] { session->sendNotify(msg); });
    expectFree("processCaptureResult", callback->during, deliver);

    GateSink sink;
    const host::ScopedLogSink scope(sink);
    sink.text = "unlock failed";
    host::setProperty("vendor.zoru.flipped", "true");
    host::failNextUnlock(5);
    expectFree("rotate180", sink.inside, deliver);
    sink.text = "handleConfigure: \n";
    expectFree("the first line of configure", sink.inside, [&] { configure(); });
}

TEST_F(HeldLocksTest, StampsARequestWhenItHasTheLock) {
    clock.stopAt(1000000);
    std::optional<Meanwhile> submitting;
    observer.inside = [&] {
        submitting.emplace([this] { submit(1, 1); }, Other::WAITS);
        clock.stopAt(3000000);
    };
    session->setSceneControl({});
    submitting.reset();
    pass();
    EXPECT_EQ(deliveries.count(), 0U);
    clock.stopAt(4000001);
    pass();
    EXPECT_EQ(deliveries.count(), 1U);
}

TEST_F(HeldLocksTest, FreesTheHandlesBeforeItDropsTheirWrappers) {
    submit(1, 1);
    int freed = 0;
    sessionMapper().onFree = [&](void*) {
        ++freed;
        EXPECT_NE(session->getBufferForId(1), nullptr);
    };
    configure();
    sessionMapper().onFree = nullptr;
    EXPECT_EQ(freed, 1);
}

TEST_F(HeldLocksTest, WaitsFiftyMillisecondsForAResultThatWakesItAndLocksTheQueueOnly) {
    std::optional<Meanwhile> reader;
    std::optional<Meanwhile> sender;
    using Clock = std::chrono::system_clock;
    const auto earliest = Clock::now() + std::chrono::milliseconds(50);
    {
        const BeforeWaiting look([&](timespec& deadline) {
            const auto end =
                Clock::from_time_t(deadline.tv_sec) + std::chrono::nanoseconds(deadline.tv_nsec);
            EXPECT_GE(end, earliest);
            EXPECT_LE(end, Clock::now() + std::chrono::milliseconds(50));
            deadline.tv_sec += 3600;  // until it is woken
            reader.emplace([this] { session->getTrackingMode(); }, Other::GOES_ON);
            sender.emplace([this] { session->sendCaptureResult(resultOf(1)); }, Other::WAITS);
        });
        where = "the idle wait";
        session->threadLoop();
    }
    EXPECT_EQ(deliveries.count(), 1U);
}

TEST_F(HeldLocksTest, LetsGoOfAnObserverOnlyWhenNoCallIsInside) {
    const auto track = [this] { session->setTrackControl({}); };
    const Probe letGo = [this] { session->setSceneCallback(nullptr); };
    expectAt("letting go", Other::WAITS, observer.inside, track, letGo);
    session->setSceneCallback(&observer);
    expectAt("setting it again", Other::GOES_ON, observer.inside, track,
             [this] { session->setSceneCallback(&observer); });
    // Not from inside an operation, which would wait for itself.
    observer.inside = letGo;
    track();
    session->setSceneCallback(&observer);
    observer.inside = letGo;
    session->setSceneControl({});
    EXPECT_EQ(observer.inside, nullptr);
}

}  // namespace testing_support
