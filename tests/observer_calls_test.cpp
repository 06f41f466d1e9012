// Who is inside which observer, and who waits for it.

#include <gtest/gtest.h>

#include <future>

#include "FDSession.h"
#include "ObserverCalls.h"
#include "support/stress.h"

namespace testing_support {

using vendor::zoru::zoruprovider::fdstream::V1_0::implementation::ISceneCallback;
using vendor::zoru::zoruprovider::fdstream::V1_0::implementation::ObserverCalls;
using SessionLock = ObserverCalls::SessionLock;

TEST(ObserverCallsTest, WakesAllWhoWaitWhenTheCallsThatTheyWaitForHaveEnded) {
    const Watchdog watchdog([] { return "a wait for calls of observers"; },
                            std::chrono::seconds(20));
    // Told apart by their addresses alone.
    const int places[2] = {};
    const auto* const one = reinterpret_cast<const ISceneCallback*>(&places[0]);
    const auto* const other = reinterpret_cast<const ISceneCallback*>(&places[1]);
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
    const Meanwhile early(underWay(one, ends[0]), Other::WAITS);
    const Meanwhile late(underWay(other, ends[1]), Other::WAITS);
    const Meanwhile first(waitFor(nullptr), Other::WAITS);
    const Meanwhile second(waitFor(nullptr), Other::WAITS);
    const Meanwhile satisfied(waitFor(other), Other::WAITS);
    const Meanwhile later(underWay(one, ends[2]), Other::WAITS);  // which nobody waits for
    {
        // Their own records end here, the latest first, while those of others stay.
        const ObserverCalls::Scope outer(calls, one, SessionLock::HELD);
        {
            const ObserverCalls::Scope inner(calls, other, SessionLock::FREE);
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
    calls.waitForOthersThan(one);
    ends[2].set_value();
}

}  // namespace testing_support
