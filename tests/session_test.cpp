// The session's life and its callback's, what its thread does, letting go of what it was sent, and
// waiting for an observer's calls.

#include <sys/mman.h>
#include <unistd.h>

#include <cstdlib>
#include <functional>
#include <future>
#include <memory>
#include <tuple>
#include <vector>

#include "ObserverCalls.h"
#include "host/threads.h"
#include "host/unique_fd.h"
#include "host/unique_handle.h"
#include "support/driven_session.h"
#include "support/spy_mapper.h"

namespace testing_support {

using SessionTest = SessionFixture;
using LettingGoTest = DrivenSession;
using SessionLock = ObserverCalls::SessionLock;
using android::hardware::camera::common::V1_0::Status;

TEST_F(SessionTest, SweepsAndDiesOnAThreadOfItsOwn) {
    const int threads = host::threadCount();
    const sp<FDSessionImpl> other = new FDSessionImpl;
    EXPECT_EQ(host::threadCount(), threads + 1);
    EXPECT_EQ(session->getInterface(), client);
    EXPECT_FALSE(client->isRemote());
    EXPECT_FALSE(bool(client->linkToDeath(nullptr, 1)));

    // The monitor is inside the callback, and so holds the session, while everybody else lets go.
    auto closed = holdClient();
    WallClock clock;
    clock.stopAt(1700000000000000);
    configure();
    ASSERT_EQ(submit(1, 4), 0);
    clock.stopAt(1700000001000001);  // seen at the end of an idle wait
    EXPECT_EQ(deliveries.waitFor(1)[0].frameNumber, 1U);
    configure();
    callback.clear();
    session.clear();
    closed.unlock();
    EXPECT_EQ(deliveries.waitForDeath(), "CaptureRequestM");
    EXPECT_EQ(Status(client->configure(configurationOf(0))), Status::INTERNAL_ERROR);
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
                   provided->sendCaptureResult(resultFor(request));
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

TEST(FirstInstanceDeathTest, IsMadeOnceByWhoeverComesFirst) {
    // In a process of its own, which has no session yet.
    const auto getFromFourThreads = [] {
        const LogLines log;
        const Side get = {"getInstance", [](size_t) { FDSession::getInstance(); }};
        race({get, get, get, get}, 1);
        exit(log.timesSaid("D PTZ Scene reset 0 0 1280 720") == 1 ? 0 : 1);
    };
    EXPECT_EXIT(getFromFourThreads(), testing::ExitedWithCode(0), "");
}

TEST_F(LettingGoTest, LetsGoOfWhatItWasSentWithoutALock) {
    // Which may take as long as a client likes, and may run its code.
    const host::UniqueFd file(memfd_create("fence", MFD_CLOEXEC));
    const host::UniqueHandle fence(native_handle_create(1, 0));
    fence->data[0] = dup(file.get());
    const auto submitted = [&](uint64_t bufferId, const native_handle_t* handle) {
        CaptureRequest request = requestFor(1, bufferId, handle);
        request.inputBuffer.acquireFence = fence.get();
        request.outputBuffers[0].acquireFence = fence.get();
        return session->handleCaptureRequest(request) == 0;
    };
    std::vector<std::unique_ptr<Meanwhile>> others;
    const auto goOn = [&] {
        others.push_back(std::make_unique<Meanwhile>(
            [this] {
                session->getTrackingMode();
                session->sendCaptureResult({});
            },
            Other::GOES_ON));
    };
    const std::tuple<const char*, size_t, std::function<void()>> cases[] = {
        {"a result, in a pass that answers a stale request, too", 3,
         [&] {
             CaptureResult result = resultOf(1);
             result.inputBuffer.releaseFence = fence.get();
             session->sendCaptureResult(result);
             EXPECT_TRUE(submitted(1, buffer.handle()));
             pass();
         }},
        {"a refused request", 2, [&] { EXPECT_FALSE(submitted(9, nullptr)); }},
        {"a reconfiguration", 2,
         [&] {
             EXPECT_TRUE(submitted(1, buffer.handle()));
             configure();
         }},
        {"what the provider's record held", 2,
         [&] {
             EXPECT_TRUE(submitted(1, buffer.handle()));
             ASSERT_EQ(submit(2, 1), 0);
             CaptureRequest request = take();
             EXPECT_EQ(session->getProcessCaptureRequest(request), 0);
         }},
        {"a callback", 1, [&] {
             callback->during = [own = std::make_shared<host::UniqueFd>(dup(file.get()))] {};
             session->handleSetCallback(callback);
             callback.clear();
             session->handleSetCallback(nullptr);
         }}};
    session->handleSetCallback(nullptr);  // what is to be delivered ends here
    configure();
    const FileWatch watch(file.get(), Watching::CLOSES, goOn);
    for (const auto& [what, times, act] : cases) {
        SCOPED_TRACE(where = what);
        others.clear();
        act();
        EXPECT_EQ(others.size(), times);
    }
}

TEST_F(LettingGoTest, DiesInsideTheClientsCallThatHoldsItLastAndNotBeforeItsEnd) {
    const wp<FDSessionImpl> watched(session);
    configure();
    ASSERT_EQ(submit(1, 1), 0);
    sessionMapper().during = [&] {  // which gives the buffer back
        session.clear();
        EXPECT_NE(watched.promote(), nullptr);
    };
    EXPECT_EQ(Status(client->configure(configurationOf(0))), Status::OK);
    EXPECT_EQ(watched.promote(), nullptr);
}

TEST(ObserverCallsTest, WakesAllWhoWaitWhenTheCallsThatTheyWaitForHaveEnded) {
    const Watchdog watchdog([] { return "a wait for calls of observers"; });
    const Observer one;
    const Observer other;
    ObserverCalls calls;
    const auto underWay = [&calls](const ISceneCallback* observer, std::promise<void>& end) {
        return [&calls, observer, &end] {
            const ObserverCalls::Scope scope(calls, observer, SessionLock::FREE);
            end.get_future().wait();
        };
    };
    const auto waitFor = [&calls](const ISceneCallback* current) {
        return [&calls, current] { calls.waitForOthersThan(current); };
    };
    std::promise<void> ends[3];
    const Meanwhile early(underWay(&one, ends[0]), Other::WAITS);
    const Meanwhile late(underWay(&other, ends[1]), Other::WAITS);
    const Meanwhile first(waitFor(nullptr), Other::WAITS);
    const Meanwhile second(waitFor(nullptr), Other::WAITS);
    const Meanwhile satisfied(waitFor(&other), Other::WAITS);
    const Meanwhile later(underWay(&one, ends[2]), Other::WAITS);  // which nobody waits for
    {
        // Their own records end here, the latest first, while those of others stay.
        const ObserverCalls::Scope outer(calls, &one, SessionLock::HELD);
        {
            const ObserverCalls::Scope inner(calls, &other, SessionLock::FREE);
            calls.waitForOthersThan(nullptr);  // not from inside
        }
        EXPECT_TRUE(calls.isInsideLocked());
        Meanwhile([&] { EXPECT_FALSE(calls.isInsideLocked()); }, Other::GOES_ON);
    }
    EXPECT_FALSE(calls.isInsideLocked());
    first.expect(Other::WAITS);
    ends[0].set_value();
    satisfied.expect(Other::GOES_ON);
    first.expect(Other::WAITS);
    ends[1].set_value();
    first.expect(Other::GOES_ON);
    second.expect(Other::GOES_ON);
    calls.waitForOthersThan(&one);
    ends[2].set_value();
}

}  // namespace testing_support
