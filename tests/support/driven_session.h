#pragma once

#include <chrono>
#include <ctime>
#include <functional>
#include <string>
#include <utility>

#include "host/threads.h"
#include "support/interposed.h"
#include "support/session_fixture.h"
#include "support/stress.h"

namespace testing_support {

/**
 * Looks whether what it is told is stored already, and not replaced while the lock is held, and
 * runs `inside` in the next call.
 */
struct Observer : public ISceneCallback {
    explicit Observer(FDSession& told) : session(told) {}
    void onSceneControl(SceneControl sceneControl) override {
        EXPECT_EQ(session.getPeopleCount(), sceneControl.peopleCount);
        pass();
    }
    void onPTZControl(SceneControl ptzControl) override {
        SceneControl stored = {};
        session.getPTZControl(stored);
        EXPECT_EQ(stored.peopleCount, ptzControl.peopleCount);
        pass();
    }
    void onTrackControl(TrackControl trackControl) override {
        TrackControl stored = {};
        session.getTrackControl(stored);
        EXPECT_GE(stored.timestampNs, trackControl.timestampNs);  // without the lock
        pass();
    }
    void onTrackingMode(TrackingMode trackingMode) override {
        EXPECT_EQ(session.getTrackingMode(), trackingMode);
        pass();
    }
    void pass() {
        if (inside) std::exchange(inside, nullptr)();
    }

    FDSession& session;
    std::function<void()> inside;
};

/** So that the fixture's session has no thread. */
struct WithoutMonitor {
    WithoutMonitor() { host::failNextThreadStart(); }
};

/** A session whose passes the test drives, and an observer that a test can hold up. */
class DrivenSession : private WithoutMonitor, public SessionFixture {
protected:
    using Probe = std::function<void()>;

    static CaptureResult resultOf(uint64_t bufferId) { return resultFor(requestFor(1, bufferId)); }
    /** In which every request is too old, and nothing is waited for. */
    void pass() {
        const BeforeWaiting atOnce([](timespec& deadline) { deadline = {}; });
        clock.stepBy(2000000);
        session->threadLoop();
    }

    const Watchdog watchdog{[this] { return where; }, std::chrono::seconds(30)};
    std::string where;
    WallClock clock;
    Observer observer{*session};
};

}  // namespace testing_support
