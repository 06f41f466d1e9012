// The session's life, its client face, and the stream configuration.

#include <android/log.h>

#include <functional>
#include <memory>
#include <thread>

#include "host/threads.h"
#include "support/session_fixture.h"

namespace testing_support {

using SessionTest = SessionFixture;
using android::hardware::camera::common::V1_0::Status;

TEST_F(SessionTest, ConstructsWithTheDefaultSceneOneThreadAndOneTrampoline) {
    EXPECT_EQ(log.texts(kSessionTag),
              (std::vector<std::string>{"PTZ Scene reset 0 0 1280 720", "handleSetCallback: \n"}));
    const int threads = host::threadCount();
    const sp<FDSessionImpl> other = new FDSessionImpl;
    EXPECT_EQ(host::threadCount(), threads + 1);
    EXPECT_NE(other->getInterface(), client);
    EXPECT_TRUE(session->isRunning());
    EXPECT_NE(client, nullptr);
    EXPECT_EQ(session->getInterface(), client);
    EXPECT_FALSE(client->isRemote());
}

TEST_F(SessionTest, AnswersInternalErrorOnceItIsGone) {
    configure();
    ASSERT_EQ(submit(1, 1), 0);
    serveOne();
    deliveries.waitFor(1);
    ASSERT_EQ(submit(2, 1), 0);  // stays queued, and goes with the session
    session->freeBuffer(resultFor(requestFor(1, 1, nullptr)).outputBuffers[0]);
    callback.clear();
    session.clear();
    deliveries.waitForDeath();
    log.clear();
    EXPECT_EQ(Status(client->setCallback(nullptr)), Status::INTERNAL_ERROR);
    EXPECT_EQ(Status(client->configure(configurationOf(0))), Status::INTERNAL_ERROR);
    EXPECT_EQ(Status(client->processCaptureRequest(requestFor(1, 1, nullptr))),
              Status::INTERNAL_ERROR);
    const std::vector<std::string> gone = {"setCallback: FDSessionImpl is gone",
                                           "configure: FDSessionImpl is gone",
                                           "processCaptureRequest: FDSessionImpl is gone"};
    EXPECT_EQ(log.texts(kSessionTag), gone);
    EXPECT_EQ(deliveries.count(), 1U);  // what was still queued went without an answer
}

TEST_F(SessionTest, DiesOnItsOwnThreadWhenThatDropsTheLastReference) {
    // The monitor is inside the callback, and so holds the session, while everybody else lets go.
    std::mutex gate;
    std::unique_lock<std::mutex> closed(gate);
    callback->during = [&gate] { const std::lock_guard<std::mutex> pass(gate); };
    configure();
    ASSERT_EQ(submit(1, 1), 0);
    serveOne();
    deliveries.waitFor(1);
    session->handleConfigure(configurationOf(0));
    callback.clear();
    session.clear();
    closed.unlock();
    EXPECT_EQ(deliveries.waitForDeath(), "CaptureRequestM");
    EXPECT_EQ(Status(client->configure(configurationOf(0))), Status::INTERNAL_ERROR);
}

TEST_F(SessionTest, WithoutAThreadDeliversNothingAndDiesCleanly) {
    host::failNextThreadStart();
    sp<FDSessionImpl> other = new FDSessionImpl;
    EXPECT_FALSE(other->isRunning());
    EXPECT_EQ(other->getStrongCount(), 1);
    other->sendCaptureResult(CaptureResult());
    other.clear();
}

TEST_F(SessionTest, ConfiguresExactlyOneStream) {
    StreamConfiguration kept = configurationOf(77);
    EXPECT_EQ(session->getConfiguration(kept), -1);
    EXPECT_EQ(kept.streams[0].id, 77);

    StreamConfiguration two = configurationOf(1);
    two.streams.resize(2);
    const StreamConfiguration none = {};
    log.clear();
    EXPECT_EQ(Status(client->configure(none)), Status::ILLEGAL_ARGUMENT);
    EXPECT_EQ(Status(client->configure(two)), Status::ILLEGAL_ARGUMENT);
    EXPECT_EQ(session->getConfiguration(kept), -1);

    StreamConfiguration sent = configurationOf(5, 640, 480);
    sent.streams[0].dataSpace = 0x101;
    EXPECT_EQ(Status(client->configure(sent)), Status::OK);
    EXPECT_EQ(session->getConfiguration(kept), 0);
    ASSERT_EQ(kept.streams.size(), 1U);
    // NOLINTNEXTLINE(bugprone-suspicious-memory-comparison): a copy takes the padding along
    EXPECT_EQ(memcmp(&kept.streams[0], &sent.streams[0], sizeof(Stream)), 0);
    EXPECT_EQ(kept.operationMode, sent.operationMode);

    const std::vector<std::string> lines = {"handleConfigure: \n",
                                            "handleConfigure: streamsCount(0)  \n",
                                            "handleConfigure: streamsCount(0)  \n",
                                            "handleConfigure: \n",
                                            "handleConfigure: streamsCount(2)  \n",
                                            "handleConfigure: streamsCount(2)  \n",
                                            "handleConfigure: \n",
                                            "handleConfigure: streamsCount(1)  \n"};
    EXPECT_EQ(log.texts(kSessionTag), lines);
    EXPECT_EQ(log.lines()[1].priority, ANDROID_LOG_INFO);
    EXPECT_EQ(log.lines()[2].priority, ANDROID_LOG_ERROR);
}

TEST_F(SessionTest, ReconfiguringStartsAfreshButKeepsQueuedResults) {
    configure();
    ASSERT_EQ(submit(1, 1), 0);
    ASSERT_EQ(submit(2, 2), 0);

    StreamConfiguration none = {};
    EXPECT_EQ(session->handleConfigure(none), -1);  // refused: everything stays
    EXPECT_TRUE(session->isCaptureRequestReady());
    EXPECT_NE(session->getBufferForId(1), nullptr);

    // A result waits behind the one that the monitor is delivering.
    std::mutex gate;
    std::unique_lock<std::mutex> closed(gate);
    callback->during = [&gate] { const std::lock_guard<std::mutex> pass(gate); };
    const CaptureRequest first = take();
    session->sendCaptureResult(resultFor(first));
    deliveries.waitFor(1);
    session->sendCaptureResult(resultFor(first));
    EXPECT_EQ(session->handleConfigure(configurationOf(0)), 0);
    closed.unlock();
    EXPECT_EQ(deliveries.waitFor(2)[1].result.frameNumber, 1U);

    EXPECT_FALSE(session->isCaptureRequestReady());
    EXPECT_EQ(session->getBufferForId(1), nullptr);
    EXPECT_EQ(session->getBufferForId(2), nullptr);
    drivePass();
    EXPECT_EQ(deliveries.count(), 2U);  // the dropped request is not answered
    stop();
}

TEST_F(SessionTest, ReplacesItsCallbackWhileACallIsInFlight) {
    Deliveries later;
    std::mutex gate;
    std::unique_lock<std::mutex> closed(gate);
    callback->during = [&gate] { const std::lock_guard<std::mutex> pass(gate); };
    configure();
    ASSERT_EQ(submit(1, 1), 0);
    ASSERT_EQ(submit(2, 1), 0);
    serveOne();
    deliveries.waitFor(1);
    // Does not wait for the call, and the callback outlives its session's reference until then.
    EXPECT_EQ(Status(client->setCallback(new Callback(later))), Status::OK);
    callback.clear();
    serveOne();
    closed.unlock();
    EXPECT_EQ(later.waitFor(1)[0].result.frameNumber, 2U);
    EXPECT_EQ(deliveries.waitForDeath(), "CaptureRequestM");
    EXPECT_EQ(deliveries.count(), 1U);
    EXPECT_EQ(Status(client->setCallback(nullptr)), Status::OK);
    EXPECT_EQ(log.count("handleSetCallback: \n"), 3);
    stop();
}

TEST_F(SessionTest, LetsGoOfACallbackWithoutTheLock) {
    // The callback's end is the client's code: here it waits for a thread that needs the session.
    struct Waiting : public Callback {
        Waiting(Deliveries& told, FDSessionImpl& called) : Callback(told), session(called) {}
        ~Waiting() override {
            std::thread([this] { session.getTrackingMode(); }).join();
        }
        FDSessionImpl& session;
    };
    Deliveries told;
    session->handleSetCallback(new Waiting(told, *session));
    session->handleSetCallback(nullptr);
    EXPECT_EQ(told.waitForDeath(), threadName());
}

TEST_F(SessionTest, TakesEveryOperationFromEveryThreadAtOnce) {
    // What a missing lock breaks here the thread sanitizer tells.
    struct Ignoring : public ISceneCallback {
        void onSceneControl(SceneControl) override {}
        void onPTZControl(SceneControl) override {}
        void onTrackControl(TrackControl) override {}
        void onTrackingMode(TrackingMode) override {}
    };
    configure();
    const std::function<void(int)> operations[] = {
        [&](int i) {
            StreamConfiguration configuration = configurationOf(0);
            if (i % 8 == 0) session->handleConfigure(configuration);
            session->getConfiguration(configuration);
        },
        [&](int i) {
            submit(static_cast<uint32_t>(i), static_cast<uint64_t>(i % 5));
            session->getBufferForId(static_cast<uint64_t>(i % 5));
        },
        [&](int) {
            CaptureRequest request = {};
            if (session->isCaptureRequestReady() &&
                session->getProcessCaptureRequest(request) == 0) {
                session->sendCaptureResult(resultFor(request));
            }
        },
        [&](int i) {
            FDNotifyMsg msg = {};
            session->sendNotify(msg);
            client->setCallback(i % 4 == 0 ? nullptr : callback).isOk();
            session->getInterface();
        },
        [&](int i) {
            SceneControl scene = {};
            scene.crops.resize(static_cast<size_t>(i % 3));
            session->setSceneControl(scene);
            session->getPTZControl(scene);
            session->setPTZControl(scene);
            session->getSceneControl(scene);
            session->setTrackingMode(static_cast<TrackingMode>(i % 2));
        },
        [&](int) {
            // Whoever replaced an observer may destroy it at once.
            const auto observer = std::make_unique<Ignoring>();
            session->setSceneCallback(observer.get());
            TrackControl track = {};
            session->setTrackControl(track);
            session->getTrackControl(track);
            session->getTrackingMode();
            session->getPeopleCount();
            session->setSceneCallback(nullptr);
        }};
    std::vector<std::thread> threads;
    for (const auto& operation : operations) {
        for (int copy = 0; copy < 2; ++copy) {
            threads.emplace_back([&operation] {
                for (int i = 0; i < 60; ++i)
                    operation(i);
            });
        }
    }
    for (std::thread& thread : threads)
        thread.join();
    session->setSceneCallback(nullptr);
    stop();
}

TEST_F(SessionTest, NotifiesAtOnceOnTheCallersThread) {
    FDNotifyMsg msg = {FDNotifyType::PEOPLE_COUNT, 7, 0x1122334455667788};
    session->sendNotify(msg);
    ASSERT_EQ(deliveries.notified().size(), 1U);
    EXPECT_EQ(memcmp(&deliveries.notified()[0], &msg, sizeof(msg)), 0);

    callback->failing = true;
    session->sendNotify(msg);
    EXPECT_EQ(log.count("sendNotify: notify transaction failed: Status(EX_TRANSACTION_FAILED): "
                        "'DEAD_OBJECT: the peer has closed the connection'"),
              1);
    callback->failing = false;
    session->sendNotify(msg);
    EXPECT_EQ(deliveries.notified().size(), 3U);

    session->handleSetCallback(nullptr);
    session->sendNotify(msg);
    EXPECT_EQ(log.count("sendNotify: notify failed: invalid session \n"), 1);
    EXPECT_EQ(deliveries.notified().size(), 3U);
}

}  // namespace testing_support
