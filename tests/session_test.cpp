// The session's life and its callback's, and what its thread does.

#include <atomic>
#include <cstdlib>
#include <functional>
#include <optional>
#include <utility>

#include "Rotate180.h"
#include "host/threads.h"
#include "host/unique_handle.h"
#include "support/interposed.h"
#include "support/session_fixture.h"
#include "support/stress.h"

namespace testing_support {

namespace {

using SessionTest = SessionFixture;
using android::hardware::camera::common::V1_0::Status;

/** A callback whose end does something. */
struct Ending : public Callback {
    Ending(Deliveries& told, std::function<void()> act) : Callback(told), end(std::move(act)) {}
    ~Ending() override { end(); }
    const std::function<void()> end;
};

}  // namespace

TEST_F(SessionTest, SweepsAndDiesOnAThreadOfItsOwn) {
    const int threads = host::threadCount();
    const sp<FDSessionImpl> other = new FDSessionImpl;
    EXPECT_EQ(host::threadCount(), threads + 1);
    EXPECT_NE(other->getInterface(), client);
    EXPECT_EQ(session->getInterface(), client);
    EXPECT_TRUE(session->isRunning());
    EXPECT_FALSE(client->isRemote());
    EXPECT_FALSE(bool(client->linkToDeath(nullptr, 1)));

    // The monitor is inside the callback, and so holds the session, while everybody else lets go.
    auto closed = holdClient();
    WallClock clock;
    clock.stopAt(1700000000000000);
    configure();
    ASSERT_EQ(submit(1, 4), 0);
    clock.stopAt(1700000001000001);  // seen at the end of an idle wait
    const auto came = deliveries.waitFor(1);
    EXPECT_EQ(came[0].thread, "CaptureRequestM");
    EXPECT_EQ(came[0].result.frameNumber, 1U);
    configure();
    callback.clear();
    session.clear();
    closed.unlock();
    EXPECT_EQ(deliveries.waitForDeath(), "CaptureRequestM");
    EXPECT_EQ(Status(client->configure(configurationOf(0))), Status::INTERNAL_ERROR);
}

TEST_F(SessionTest, DiesInsideTheClientsCallThatHoldsItLast) {
    Deliveries told;
    host::failNextThreadStart();
    sp<FDSessionImpl> last = new FDSessionImpl;
    EXPECT_FALSE(last->isRunning());
    const sp<IFDSession> called = last->getInterface();
    last->handleSetCallback(new Ending(deliveries, [&last] { last.clear(); }));
    EXPECT_EQ(Status(called->setCallback(new Callback(told))), Status::OK);
    EXPECT_EQ(told.waitForDeath(), threadName());
    EXPECT_EQ(called->getStrongCount(), 1);
}

TEST_F(SessionTest, DiesOnceWhereverItsLastReferencesAreDropped) {
    const host::UniqueHandle empty(native_handle_create(0, 0));
    for (int i = 0; i < 30; ++i) {
        Deliveries told;
        sp<FDSessionImpl> owned = new FDSessionImpl;
        sp<FDSession> provided = owned;
        sp<IFDSession> called = owned->getInterface();
        owned->handleSetCallback(new Callback(told));
        owned->handleConfigure(configurationOf(0));
        const CaptureRequest request = requestFor(1, 1, empty.get());
        ASSERT_EQ(owned->handleCaptureRequest(request), 0);
        sp<GraphicBuffer> wrapped = owned->getBufferForId(1);
        race({{"owner", [&](size_t) { owned.clear(); }},
              {"graphics buffer", [&](size_t) { wrapped.clear(); }},
              {"provider",
               [&](size_t) {
                   CaptureRequest taken = {};
                   provided->getProcessCaptureRequest(taken);
                   provided->sendCaptureResult(resultFor(taken));
                   provided.clear();
               }},
              {"client",
               [&](size_t) {
                   EXPECT_TRUE(called->processCaptureRequest(request).isOk());
                   called.clear();
               }}},
             1);
        told.waitForDeath();
    }
}

TEST_F(SessionTest, LetsGoOfACallbackWithoutTheLock) {
    // The callback's end is the client's code: here it waits for a thread that needs the session.
    std::optional<Meanwhile> other;
    session->handleSetCallback(new Ending(deliveries, [&] {
        other.emplace([this] { session->getTrackingMode(); }, Other::GOES_ON);
    }));
    session->handleSetCallback(nullptr);
    EXPECT_EQ(deliveries.waitForDeath(), threadName());
}

TEST(RotationTest, SaysThatThereIsNoBuffer) {
    const LogLines log;
    rotate180(nullptr);
    EXPECT_EQ(log.said(kSessionTag), Lines{"E rotate180: Invalid graphics buffer \n"});
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

}  // namespace testing_support
