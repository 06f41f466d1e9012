// Every operation from a thread of its own, all at once. What a missing lock breaks here the thread
// sanitizer tells. A thread has one operation only: a second one would put the accesses of the
// first in an order.

#include <atomic>
#include <cstddef>
#include <cstdlib>
#include <functional>
#include <memory>
#include <thread>
#include <utility>
#include <vector>

#include "support/session_fixture.h"

namespace testing_support {

namespace {

using Operation = std::function<void(int)>;  // takes the number of its call, from 0

/** Calls each operation so often, on a thread of its own; they begin when all are there. */
void runAtOnce(const std::vector<Operation>& operations, int times) {
    std::atomic<size_t> missing{operations.size()};
    std::vector<std::thread> threads;
    threads.reserve(operations.size());
    for (const Operation& operation : operations) {
        threads.emplace_back([&missing, &operation, times] {
            --missing;
            while (missing != 0)
                std::this_thread::yield();
            for (int i = 0; i < times; ++i)
                operation(i);
        });
    }
    for (std::thread& thread : threads)
        thread.join();
}

struct Ignoring : public ISceneCallback {
    void onSceneControl(SceneControl /*sceneControl*/) override {}
    void onPTZControl(SceneControl /*ptzControl*/) override {}
    void onTrackControl(TrackControl /*trackControl*/) override {}
    void onTrackingMode(TrackingMode /*trackingMode*/) override {}
};

uint64_t idOf(int i) {
    return static_cast<uint64_t>(i % 5);
}

SceneControl sceneOf(int i) {
    SceneControl scene = {};
    scene.crops.resize(static_cast<size_t>(i % 3));
    return scene;
}

/** An operation of the provider's with a record of its own. */
template <typename Record, typename Result>
Operation withRecord(FDSessionImpl& session, Result (FDSession::*operation)(Record&)) {
    return [&session, operation](int) {
        Record record = {};
        (session.*operation)(record);
    };
}

}  // namespace

using ConcurrencyTest = SessionFixture;

TEST_F(ConcurrencyTest, TakesEveryOperationAtOnce) {
    configure();
    FDSessionImpl& s = *session;
    std::unique_ptr<Ignoring> observer;
    const std::vector<Operation> operations = {
        [&](int i) { s.handleSetCallback(i % 50 == 0 ? nullptr : callback); },
        [&](int) { s.handleConfigure(configurationOf(0)); },
        [&](int i) { submit(1, idOf(i)); },
        [&](int) { s.getInterface(); },
        [&](int i) { s.getBufferForId(idOf(i)); },
        withRecord(s, &FDSession::getConfiguration),
        withRecord(s, &FDSession::getProcessCaptureRequest),
        [&](int) { s.isCaptureRequestReady(); },
        withRecord(s, &FDSession::sendNotify),
        [&](int i) { s.sendCaptureResult(resultFor(requestFor(1, idOf(i)))); },
        [&](int i) { s.setSceneControl(sceneOf(i)); },
        withRecord(s, &FDSession::getSceneControl),
        [&](int i) { s.setTrackingMode(static_cast<TrackingMode>(i % 2)); },
        [&](int) { s.getTrackingMode(); },
        [&](int i) { s.setPTZControl(sceneOf(i)); },
        withRecord(s, &FDSession::getPTZControl),
        [&](int) { s.resetPTZScene(); },
        [&](int) { s.getPeopleCount(); },
        [&](int) { s.setTrackControl({}); },
        withRecord(s, &FDSession::getTrackControl),
        [&](int) {
            // Whoever has replaced an observer may destroy it at once.
            auto next = std::make_unique<Ignoring>();
            s.setSceneCallback(next.get());
            observer = std::move(next);
        }};
    runAtOnce(operations, 200);
    session->setSceneCallback(nullptr);
    stop();
}

TEST(FirstInstanceDeathTest, IsMadeOnceByWhoeverComesFirst) {
    // In a process of its own, which has no session yet.
    const auto getFromFourThreads = [] {
        LogLines log;
        std::atomic<FDSession*> first{nullptr};
        std::atomic<bool> isOne{true};
        const Operation get = [&](int) {
            FDSession* const mine = FDSession::getInstance().get();
            FDSession* other = nullptr;
            if (!first.compare_exchange_strong(other, mine) && other != mine) isOne = false;
        };
        runAtOnce({get, get, get, get}, 1);
        const bool once = log.timesSaid("D PTZ Scene reset 0 0 1280 720") == 1;
        exit(isOne && once ? 0 : 1);
    };
    EXPECT_EXIT(getFromFourThreads(), testing::ExitedWithCode(0), "");
}

}  // namespace testing_support
