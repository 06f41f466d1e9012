// Where the session holds its locks while it calls others, and where it waits.

#include <chrono>
#include <ctime>
#include <functional>
#include <map>
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

/** Runs `inside` while a line of the log is written that says so. */
struct GateSink : public host::LogSink {
    explicit GateSink(std::string wanted) : text(std::move(wanted)) {}
    void write(const host::LogLine& line) override {
        if (line.text.find(text) == std::string::npos) return;
        if (const auto once = std::exchange(inside, nullptr)) once();
    }
    const std::string text;
    std::function<void()> inside;
};

}  // namespace

class HeldLocksTest : public DrivenSession {
protected:
    ~HeldLocksTest() override { host::clearProperty("vendor.zoru.flipped"); }

    void inObserver(const Probe& probe, const Probe& act) {
        observer.inside = probe;
        act();
    }
    void inClient(const Probe& probe, const Probe& act) {
        callback->during = probe;
        act();
        callback->during = nullptr;
    }
    void notify() {
        FDNotifyMsg msg = {};
        session->sendNotify(msg);
    }
    static void inLine(const char* text, const Probe& probe, const Probe& act) {
        GateSink sink(text);
        sink.inside = probe;
        const host::ScopedLogSink scope(sink);
        act();
    }
};

TEST_F(HeldLocksTest, HoldsItsLocksInsideTheObserverAndTheMapperAndNowhereElse) {
    const std::map<std::string, std::pair<Other, std::function<void(const Probe&)>>> places = {
        {"onSceneControl",
         {Other::WAITS, [&](auto& p) { inObserver(p, [&] { session->setSceneControl({}); }); }}},
        {"onPTZControl",
         {Other::WAITS, [&](auto& p) { inObserver(p, [&] { session->setPTZControl({}); }); }}},
        {"onTrackingMode",
         {Other::WAITS,
          [&](auto& p) { inObserver(p, [&] { session->setTrackingMode(TrackingMode::GROUP); }); }}},
        {"importBuffer",
         {Other::WAITS, [&](auto& p) { sessionMapper().during = p, submit(1, 99); }}},
        {"onTrackControl",
         {Other::GOES_ON, [&](auto& p) { inObserver(p, [&] { session->setTrackControl({}); }); }}},
        {"notify", {Other::GOES_ON, [&](auto& p) { inClient(p, [this] { notify(); }); }}},
        {"processCaptureResult",
         {Other::GOES_ON,
          [&](auto& p) {
              session->sendCaptureResult(resultOf(1));
              inClient(p, [&] { pass(); });
          }}},
        {"processCaptureResult of an error",
         {Other::GOES_ON, [&](auto& p) { submit(1, 1), inClient(p, [&] { pass(); }); }}},
        {"the first line of configure",
         {Other::GOES_ON,
          [&](auto& p) { inLine("handleConfigure: \n", p, [this] { configure(); }); }}},
        {"rotate180", {Other::GOES_ON, [&](auto& p) {
                           submit(1, 1);
                           session->sendCaptureResult(resultOf(1));
                           host::setProperty("vendor.zoru.flipped", "true");
                           host::failNextUnlock(5);
                           inLine("unlock failed", p, [this] { pass(); });
                       }}}};
    configure();
    session->setSceneCallback(&observer);
    for (const auto& [placeName, place] : places) {
        const std::string& name = placeName;  // which a lambda may have
        SCOPED_TRACE(name);
        where = name;
        for (int i = 0; i < 2; ++i)  // what the last place has left
            pass();
        std::optional<Meanwhile> meanwhile;
        const Other expected = place.first;
        place.second([&, expected] {
            if (meanwhile) return;
            meanwhile.emplace(
                [&, expected] {
                    session->getTrackingMode();
                    if (expected == Other::GOES_ON) session->sendCaptureResult({});
                },
                expected);
            if (name.rfind("on", 0) != 0) return;
            log.clear();
            notify();
            EXPECT_EQ(log.timesSaid("E sendNotify: called inside an observer's operation that has "
                                    "the session locked \n"),
                      expected == Other::WAITS ? 1 : 0);
        });
        EXPECT_TRUE(meanwhile.has_value());
    }
}

TEST_F(HeldLocksTest, StampsARequestWhenItHasTheLock) {
    configure();
    clock.stopAt(1000000);
    std::optional<Meanwhile> submitting;
    observer.inside = [&] {
        submitting.emplace([this] { submit(1, 1); }, Other::WAITS);
        clock.stopAt(3000000);
    };
    session->setSceneCallback(&observer);
    session->setSceneControl({});
    submitting.reset();
    pass();
    EXPECT_EQ(deliveries.count(), 0U);
    clock.stopAt(4000001);
    pass();
    EXPECT_EQ(deliveries.count(), 1U);
}

TEST_F(HeldLocksTest, FreesTheHandlesBeforeItDropsTheirWrappers) {
    configure();
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
    configure();
    std::optional<Meanwhile> reader;
    std::optional<Meanwhile> sender;
    const auto before = std::chrono::system_clock::now() + std::chrono::milliseconds(50);
    {
        const BeforeWaiting look([&](timespec& deadline) {
            using Wall = std::chrono::system_clock;
            const std::chrono::time_point<Wall, std::chrono::nanoseconds> end(
                std::chrono::seconds(deadline.tv_sec) + std::chrono::nanoseconds(deadline.tv_nsec));
            EXPECT_GE(end, before);
            EXPECT_LE(end, std::chrono::system_clock::now() + std::chrono::milliseconds(50));
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
    expectInObserver(track, Other::WAITS, [this] { session->setSceneCallback(nullptr); });
    expectInObserver(track, Other::GOES_ON, [this] { session->setSceneCallback(&observer); });
    // Not from inside an operation, which would wait for itself.
    observer.inside = [this] { session->setSceneCallback(nullptr); };
    track();
    session->setSceneCallback(&observer);
    observer.inside = [this] { session->setSceneCallback(nullptr); };
    session->setSceneControl({});
    session->setSceneControl({});
    EXPECT_EQ(observer.inside, nullptr);
}

}  // namespace testing_support
