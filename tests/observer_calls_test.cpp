// Who is inside which observer, and who waits for it.

#include <gtest/gtest.h>

#include <future>
#include <optional>
#include <thread>

#include "FDSession.h"
#include "ObserverCalls.h"
#include "support/stress.h"

namespace testing_support {

using vendor::zoru::zoruprovider::fdstream::V1_0::implementation::ISceneCallback;
using vendor::zoru::zoruprovider::fdstream::V1_0::implementation::ObserverCalls;
using SessionLock = ObserverCalls::SessionLock;

namespace {

/** A call on a thread of its own, under way until this object goes. */
struct UnderWay {
    UnderWay(ObserverCalls& calls, const ISceneCallback* observer)
        : thread([this, &calls, observer] {
              const ObserverCalls::Scope scope(calls, observer, SessionLock::FREE);
              begun.set_value();
              end.get_future().wait();
          }) {
        begun.get_future().wait();
    }
    ~UnderWay() {
        end.set_value();
        thread.join();
    }
    std::promise<void> begun;
    std::promise<void> end;
    std::thread thread;
};

}  // namespace

class ObserverCallsTest : public testing::Test {
protected:
    void waitFor(const ISceneCallback* current) { calls.waitForOthersThan(current); }

    const Watchdog watchdog{[] { return "a wait for calls of observers"; },
                            std::chrono::seconds(20)};
    // Told apart by their addresses alone.
    const int places[2] = {};
    const ISceneCallback* const one = reinterpret_cast<const ISceneCallback*>(&places[0]);
    const ISceneCallback* const other = reinterpret_cast<const ISceneCallback*>(&places[1]);
    ObserverCalls calls;
};

TEST_F(ObserverCallsTest, WakesAllWhoWaitWhenTheCallsThatTheyWaitForHaveEnded) {
    std::optional<UnderWay> early(std::in_place, calls, one);
    std::optional<UnderWay> late(std::in_place, calls, other);
    const Meanwhile first([this] { waitFor(nullptr); }, Other::WAITS);
    const Meanwhile second([this] { waitFor(nullptr); }, Other::WAITS);
    const Meanwhile satisfied([this] { waitFor(other); }, Other::WAITS);
    const UnderWay later(calls, one);  // which nobody waits for
    {
        // Their own records end here, the latest first, while those of others stay.
        const ObserverCalls::Scope outer(calls, one, SessionLock::HELD);
        {
            const ObserverCalls::Scope inner(calls, other, SessionLock::FREE);
            waitFor(nullptr);  // not from inside
        }
        EXPECT_TRUE(calls.isInsideLocked());
        Meanwhile([this] { EXPECT_FALSE(calls.isInsideLocked()); }, Other::GOES_ON);
    }
    EXPECT_FALSE(calls.isInsideLocked());
    first.expect(Other::WAITS);
    early.reset();
    satisfied.expect(Other::GOES_ON);
    first.expect(Other::WAITS);
    late.reset();
    first.expect(Other::GOES_ON);
    second.expect(Other::GOES_ON);
    waitFor(one);
}

TEST_F(ObserverCallsTest, MayBeUsedByAllThreadsAtOnce) {
    const auto call = [this](size_t) {
        const ObserverCalls::Scope scope(calls, one, SessionLock::FREE);
    };
    race({{"call", call},
          {"another call", call},
          {"waitForOthersThan", [this](size_t) { waitFor(nullptr); }},
          {"isInsideLocked", [this](size_t) { EXPECT_FALSE(calls.isInsideLocked()); }}},
         500);
}

}  // namespace testing_support
