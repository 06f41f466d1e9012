#include "support/stress.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <utility>

#include "support/session_fixture.h"

namespace testing_support {

Watchdog::Watchdog(std::function<std::string()> where, std::chrono::milliseconds patience)
    : mThread([this, where = std::move(where), patience] {
          if (mIsOver.get_future().wait_for(patience) == std::future_status::ready) return;
          fprintf(stderr, "The watchdog ends what takes too long: %s\n", where().c_str());
          abort();
      }) {}

void race(const std::vector<Side>& sides, size_t rounds, std::chrono::milliseconds patience) {
    // Counted without an order, which would order what the sides do, too.
    constexpr auto kNoOrder = std::memory_order_relaxed;
    std::vector<std::atomic<size_t>> reached(sides.size());
    const Watchdog watchdog(
        [&] {
            std::string text;
            for (size_t i = 0; i < sides.size(); ++i) {
                const size_t round = reached[i].load(kNoOrder);
                text += sides[i].first +
                        (round < rounds ? " in round " + std::to_string(round) : " ended") + "; ";
            }
            return text;
        },
        patience);
    std::atomic<size_t> missing{sides.size()};
    std::vector<std::thread> threads;
    for (size_t i = 0; i < sides.size(); ++i) {
        threads.emplace_back([&, i] {
            --missing;
            while (missing != 0)
                std::this_thread::yield();
            for (size_t round = 0; round < rounds; reached[i].store(++round, kNoOrder)) {
                sides[i].second(round);
                std::this_thread::yield();  // so that a short one has not ended at once
            }
        });
    }
    for (std::thread& thread : threads)
        thread.join();
}

Meanwhile::Meanwhile(const std::function<void()>& operation, Other expected)
    : mThread([this, operation] {
          mId = gettid();
          operation();
          mHasEnded = true;
      }) {
    expect(expected);
}

void Meanwhile::expect(Other expected) const {
    EXPECT_TRUE(eventually(
        [&] { return mHasEnded || (expected == Other::WAITS && mId != 0 && isAsleep(mId)); }));
    EXPECT_EQ(mHasEnded, expected == Other::GOES_ON);
}

}  // namespace testing_support
