// What waits for the session's locks, and for an observer's call.

#include <chrono>
#include <ctime>
#include <optional>

#include "support/driven_session.h"
#include "support/spy_mapper.h"

namespace testing_support {

struct HeldLocksTest : public DrivenSession {
    HeldLocksTest() {
        configure();
        session->setSceneCallback(&observer);
    }
};

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
    for (const Other expected : {Other::WAITS, Other::GOES_ON}) {
        ISceneCallback* const next = expected == Other::GOES_ON ? &observer : nullptr;
        std::optional<Meanwhile> other;
        observer.inside = [&] {
            other.emplace([&] { session->setSceneCallback(next); }, expected);
        };
        session->setTrackControl({});
        other.reset();
        session->setSceneCallback(&observer);
    }
    // Not from inside an operation, which would wait for itself.
    observer.inside = [this] { session->setSceneCallback(nullptr); };
    session->setTrackControl({});
    session->setSceneCallback(&observer);
    observer.inside = [this] { session->setSceneCallback(nullptr); };
    session->setSceneControl({});
    EXPECT_EQ(observer.inside, nullptr);
}

}  // namespace testing_support
