// The session's operations against each other. In pairs, over and over, for the thread sanitizer;
// and one at a time, inside every call that the session makes, where its locks are held or free.

#include <atomic>
#include <chrono>
#include <ctime>
#include <map>
#include <memory>
#include <optional>
#include <utility>
#include <vector>

#include "host/log.h"
#include "host/mapper.h"
#include "host/properties.h"
#include "host/threads.h"
#include "support/interposed.h"
#include "support/session_fixture.h"
#include "support/spy_mapper.h"
#include "support/stress.h"

namespace testing_support {

namespace {

/** Looks whether what it is told is stored already, and not replaced while the lock is held. */
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
    virtual void pass() {}

    FDSession& session;
};

/** Runs `inside` in the next call. */
struct GateObserver : public Observer {
    using Observer::Observer;
    void pass() override {
        if (const auto once = std::exchange(inside, nullptr)) once();
    }
    std::function<void()> inside;
};

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

SceneControl sceneOf(int i) {
    SceneControl scene = {};
    scene.crops.resize(static_cast<size_t>(i % 3));
    scene.peopleCount = i;
    return scene;
}

TrackControl trackOf(int i) {
    TrackControl track = {};
    track.timestampNs = i;
    return track;
}

uint64_t idOf(int i) {
    return static_cast<uint64_t>(i % 5);
}

/** For a session whose passes a test drives. */
struct WithoutMonitor {
    WithoutMonitor() { host::failNextThreadStart(); }
};

}  // namespace

class RaceTest : private WithoutMonitor, public SessionFixture {
protected:
    using Operation = std::function<void(int)>;
    using Probe = std::function<void()>;

    static void SetUpTestSuite() { FDSession::getInstance(); }
    ~RaceTest() override { host::clearProperty("vendor.zoru.flipped"); }

    template <typename Record, typename Result>
    Operation get(Result (FDSession::*operation)(Record&)) {
        return [this, operation](int) {
            Record record = {};
            (session.get()->*operation)(record);
        };
    }
    static CaptureResult resultOf(int i) { return resultFor(requestFor(1, idOf(i))); }
    /** In which every request is too old, and nothing is waited for. */
    void pass() {
        const BeforeWaiting atOnce([](timespec& deadline) { deadline = {}; });
        clock.stepBy(2000000);
        session->threadLoop();
    }
    void replaceObserver() {
        // Whoever has replaced an observer may destroy it at once.
        auto next = std::make_unique<Observer>(*session);
        session->setSceneCallback(next.get());
        replaced = std::move(next);
    }
    /** What `other` does on another thread while `act` is inside the observer. */
    void expectInObserver(const Probe& act, Other expected, const Probe& other) {
        std::optional<Meanwhile> meanwhile;
        observer.inside = [&] {
            isInObserver = true;
            meanwhile.emplace(other, expected);
            isInObserver = false;
        };
        session->setSceneCallback(&observer);
        act();
        EXPECT_TRUE(meanwhile.has_value());
    }

    const Watchdog watchdog{[this] { return where; }, std::chrono::seconds(30)};
    std::string where;
    WallClock clock;
    std::atomic<bool> isInObserver{false};
    std::unique_ptr<Observer> replaced;
    GateObserver observer{*session};

    const std::map<std::string, Operation> operations = {
        {"getInstance", [](int) { FDSession::getInstance(); }},
        {"getInterface", [this](int) { session->getInterface(); }},
        {"setCallback",
         [this](int i) { session->handleSetCallback(i % 50 == 0 ? nullptr : callback); }},
        {"configure", [this](int) { session->handleConfigure(configurationOf(0)); }},
        {"processCaptureRequest", [this](int i) { submit(1, idOf(i)); }},
        {"getBufferForId", [this](int i) { session->getBufferForId(idOf(i)); }},
        {"getConfiguration", get(&FDSession::getConfiguration)},
        {"getProcessCaptureRequest", get(&FDSession::getProcessCaptureRequest)},
        {"isCaptureRequestReady", [this](int) { session->isCaptureRequestReady(); }},
        {"sendNotify", get(&FDSession::sendNotify)},
        {"sendCaptureResult", [this](int i) { session->sendCaptureResult(resultOf(i)); }},
        {"setSceneControl", [this](int i) { session->setSceneControl(sceneOf(i)); }},
        {"getSceneControl", get(&FDSession::getSceneControl)},
        {"getPeopleCount", [this](int) { session->getPeopleCount(); }},
        {"setTrackingMode",
         [this](int i) { session->setTrackingMode(static_cast<TrackingMode>((i + 1) % 2)); }},
        {"getTrackingMode", [this](int) { session->getTrackingMode(); }},
        {"setPTZControl", [this](int i) { session->setPTZControl(sceneOf(i)); }},
        {"getPTZControl", get(&FDSession::getPTZControl)},
        {"resetPTZScene", [this](int) { session->resetPTZScene(); }},
        {"setTrackControl", [this](int i) { session->setTrackControl(trackOf(i)); }},
        {"getTrackControl", get(&FDSession::getTrackControl)},
        {"setSceneCallback", [this](int) { replaceObserver(); }},
        {"pass", [this](int) { pass(); }}};
};

TEST_F(RaceTest, RunsEachOperationAgainstThoseThatTouchTheSame) {
    const std::vector<std::vector<std::string>> races = {
        {"setCallback", "sendNotify"},
        {"setCallback", "sendCaptureResult", "pass"},
        {"configure", "getBufferForId", "processCaptureRequest"},
        {"configure", "processCaptureRequest", "sendCaptureResult", "pass"},
        {"configure", "getConfiguration"},
        {"processCaptureRequest", "isCaptureRequestReady", "getProcessCaptureRequest"},
        {"setSceneCallback", "setSceneControl", "setPTZControl", "setTrackingMode",
         "setTrackControl", "sendNotify"},
        {"setSceneControl", "getSceneControl"},
        {"setSceneControl", "getPeopleCount"},
        {"setTrackingMode", "getTrackingMode"},
        {"setPTZControl", "getPTZControl", "resetPTZScene"},
        {"setTrackControl", "getTrackControl"}};
    configure();
    host::setProperty("vendor.zoru.flipped", "true");
    const auto run = [&](const std::vector<std::string>& names, size_t rounds) {
        std::vector<Side> sides;
        for (const std::string& name : names)
            sides.push_back({name, operations.at(name)});
        race(sides, rounds);
        session->setSceneCallback(nullptr);
    };
    for (const auto& names : races)
        run(names, 300);
    std::vector<std::string> all;
    for (const auto& [name, operation] : operations)
        all.push_back(name);
    run(all, 100);
}

TEST_F(RaceTest, LetsAllButTwoOperationsWaitWhileTheSessionIsLocked) {
    configure();
    callback->during = [this] { EXPECT_FALSE(isInObserver); };
    const auto expectWith = [&](const std::string& name, Other expected) {
        SCOPED_TRACE(name);
        where = name;
        expectInObserver([this] { session->setSceneControl({}); }, expected,
                         [&] { operations.at(name)(1); });
    };
    for (const auto& [name, operation] : operations) {
        const bool needsNoLock = name == "isCaptureRequestReady" || name == "sendCaptureResult";
        expectWith(name, needsNoLock ? Other::GOES_ON : Other::WAITS);
    }
    session->handleSetCallback(callback);
    expectWith("sendNotify", Other::WAITS);
    session->sendCaptureResult(resultOf(1));
    const size_t before = deliveries.count();
    expectWith("pass", Other::WAITS);  // with something to deliver, and before that nothing
    EXPECT_GT(deliveries.count(), before);
    session->setSceneCallback(nullptr);
}

TEST_F(RaceTest, HoldsItsLocksInsideTheObserverAndTheMapperAndNowhereElse) {
    GateSink sink("unlock failed");
    const auto inObserver = [this](const Probe& probe, const Probe& act) {
        observer.inside = probe;
        act();
    };
    const auto inClient = [this](const Probe& probe, const Probe& act) {
        callback->during = probe;
        act();
        callback->during = nullptr;
    };
    const std::map<std::string, std::pair<Other, std::function<void(const Probe&)>>> places = {
        {"onSceneControl",
         {Other::WAITS, [&](auto& p) { inObserver(p, [&] { session->setSceneControl({}); }); }}},
        {"onPTZControl",
         {Other::WAITS, [&](auto& p) { inObserver(p, [&] { session->setPTZControl({}); }); }}},
        {"onTrackingMode",
         {Other::WAITS,
          [&](auto& p) { inObserver(p, [&] { operations.at("setTrackingMode")(0); }); }}},
        {"importBuffer",
         {Other::WAITS, [&](auto& p) { sessionMapper().during = p, submit(1, 99); }}},
        {"onTrackControl",
         {Other::GOES_ON, [&](auto& p) { inObserver(p, [&] { session->setTrackControl({}); }); }}},
        {"notify",
         {Other::GOES_ON, [&](auto& p) { inClient(p, [&] { operations.at("sendNotify")(0); }); }}},
        {"processCaptureResult",
         {Other::GOES_ON,
          [&](auto& p) {
              session->sendCaptureResult(resultOf(1));
              inClient(p, [&] { pass(); });
          }}},
        {"processCaptureResult of an error",
         {Other::GOES_ON, [&](auto& p) { submit(1, 1), inClient(p, [&] { pass(); }); }}},
        {"rotate180", {Other::GOES_ON, [&](auto& p) {
                           sink.inside = p;
                           const host::ScopedLogSink scope(sink);
                           submit(1, 1);
                           session->sendCaptureResult(resultOf(1));
                           host::setProperty("vendor.zoru.flipped", "true");
                           host::failNextUnlock(5);
                           pass();
                       }}}};
    configure();
    session->setSceneCallback(&observer);
    for (const auto& [name, place] : places) {
        SCOPED_TRACE(name);
        where = name;
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
        });
        EXPECT_TRUE(meanwhile.has_value());
    }
    session->setSceneCallback(nullptr);
}

TEST_F(RaceTest, WaitsFiftyMillisecondsForAResultThatWakesItAndLocksTheQueueOnly) {
    configure();
    std::optional<Meanwhile> reader;
    std::optional<Meanwhile> sender;
    const auto before = std::chrono::system_clock::now() + std::chrono::milliseconds(50);
    {
        const BeforeWaiting look([&](timespec& deadline) {
            const std::chrono::system_clock::time_point end(
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

TEST_F(RaceTest, LetsGoOfAnObserverOnlyWhenNoCallIsInside) {
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

TEST(FirstInstanceDeathTest, IsMadeOnceByWhoeverComesFirst) {
    // In a process of its own, which has no session yet.
    const auto getFromFourThreads = [] {
        LogLines log;
        std::atomic<FDSession*> first{nullptr};
        std::atomic<bool> isOne{true};
        const Side get = {"getInstance", [&](size_t) {
                              FDSession* const mine = FDSession::getInstance().get();
                              FDSession* other = nullptr;
                              if (!first.compare_exchange_strong(other, mine) && other != mine)
                                  isOne = false;
                          }};
        race({get, get, get, get}, 1);
        const bool once = log.timesSaid("D PTZ Scene reset 0 0 1280 720") == 1;
        exit(isOne && once ? 0 : 1);
    };
    EXPECT_EXIT(getFromFourThreads(), testing::ExitedWithCode(0), "");
}

TEST(WatchdogDeathTest, SaysWhereEachThreadIs) {
    const auto getStuck = [] {
        race({{"stuck",
               [](size_t round) {
                   while (round == 3)
                       pause();
               }},
              {"quick", [](size_t) {}}},
             5, std::chrono::milliseconds(500));
    };
    EXPECT_DEATH(getStuck(), "watchdog ends .*: stuck in round 3; quick ended; ");
}

}  // namespace testing_support
