// Every operation from a thread of its own, all at once. What a missing lock breaks here the thread
// sanitizer tells. A thread has one operation only: a second one would put the accesses of the
// first in an order.

#include <atomic>
#include <cstddef>
#include <cstdlib>
#include <functional>
#include <thread>
#include <vector>

#include "support/session_fixture.h"

namespace testing_support {

namespace {

using Operation = std::function<void(int)>;  // takes the number of its call, from 0

/** Calls each operation so often, on a thread of its own; they begin when all are there. */
void runAtOnce(const std::vector<Operation>& operations, int times) {
    std::atomic<size_t> missing{operations.size()};
    std::vector<std::thread> threads;
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

std::vector<Operation> clientOperations(FDSessionImpl& session, const sp<Callback>& callback,
                                        const host::Buffer& buffer) {
    return {[&](int i) { session.handleSetCallback(i % 4 == 0 ? nullptr : callback); },
            [&](int) { session.handleConfigure(configurationOf(0)); },
            [&](int i) { session.handleCaptureRequest(requestFor(1, idOf(i), buffer.handle())); }};
}

std::vector<Operation> providerOperations(FDSessionImpl& session) {
    return {[&](int) { session.getInterface(); },
            [&](int i) { session.getBufferForId(idOf(i)); },
            [&](int) {
                StreamConfiguration configuration = {};
                session.getConfiguration(configuration);
            },
            [&](int) {
                CaptureRequest request = {};
                session.getProcessCaptureRequest(request);
            },
            [&](int) { session.isCaptureRequestReady(); },
            [&](int) {
                FDNotifyMsg msg = {};
                session.sendNotify(msg);
            },
            [&](int i) { session.sendCaptureResult(resultFor(requestFor(1, idOf(i)))); }};
}

std::vector<Operation> sceneOperations(FDSessionImpl& session) {
    return {[&](int i) { session.setSceneControl(sceneOf(i)); },
            [&](int i) { session.setPTZControl(sceneOf(i)); },
            [&](int) { session.setTrackControl({}); },
            [&](int i) { session.setTrackingMode(static_cast<TrackingMode>(i % 2)); },
            [&](int) { session.resetPTZScene(); },
            [&](int) {
                SceneControl scene = {};
                session.getSceneControl(scene);
            },
            [&](int) {
                SceneControl scene = {};
                session.getPTZControl(scene);
            },
            [&](int) {
                TrackControl track = {};
                session.getTrackControl(track);
            },
            [&](int) { session.getTrackingMode(); },
            [&](int) { session.getPeopleCount(); },
            [&](int) {
                // Whoever replaced an observer may destroy it at once.
                Ignoring observer;
                session.setSceneCallback(&observer);
                session.setSceneCallback(nullptr);
            }};
}

}  // namespace

using ConcurrencyTest = SessionFixture;

TEST_F(ConcurrencyTest, TakesEveryOperationAtOnce) {
    configure();
    std::vector<Operation> all = clientOperations(*session, callback, buffer);
    for (const auto& more : {providerOperations(*session), sceneOperations(*session)})
        all.insert(all.end(), more.begin(), more.end());
    runAtOnce(all, 60);
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
