#pragma once

#include <ctime>
#include <functional>
#include <string>
#include <utility>

#include "host/threads.h"
#include "support/interposed.h"
#include "support/session_fixture.h"
#include "support/stress.h"

namespace testing_support {

/** Runs `inside` in the next call. */
struct Observer : public ISceneCallback {
    void onSceneControl(SceneControl /*sceneControl*/) override { pass(); }
    void onPTZControl(SceneControl /*ptzControl*/) override { pass(); }
    void onTrackControl(TrackControl /*trackControl*/) override { pass(); }
    void onTrackingMode(TrackingMode /*trackingMode*/) override { pass(); }
    void pass() {
        if (inside) std::exchange(inside, nullptr)();
    }

    std::function<void()> inside;
};

/** A session without a thread, whose passes the test drives, and an observer that it can hold up.
 */
class DrivenSession : public SessionFixture {
protected:
    DrivenSession() : SessionFixture((host::failNextThreadStart(), new FDSessionImpl)) {}

    static CaptureResult resultOf(uint64_t bufferId) { return resultFor(requestFor(1, bufferId)); }
    /** In which every request is too old, and nothing is waited for. */
    void pass() {
        const BeforeWaiting atOnce([](timespec& deadline) { deadline = {}; });
        clock.stepBy(2000000);
        session->threadLoop();
    }

    const Watchdog watchdog{[this] { return where; }};
    std::string where;
    WallClock clock;
    Observer observer;
};

}  // namespace testing_support
