#include "support/stress.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <utility>

#include "support/session_fixture.h"

namespace testing_support {

Watchdog::Watchdog(std::function<std::string()> where, std::chrono::milliseconds patience)
    : mThread(
          [this, where = std::move(where), deadline = std::chrono::system_clock::now() + patience] {
              std::unique_lock<std::mutex> lock(mMutex);
              if (mChanged.wait_until(lock, deadline, [this] { return mIsOver; })) return;
              fprintf(stderr, "The watchdog ends what takes too long: %s\n", where().c_str());
              abort();
          }) {}

Watchdog::~Watchdog() {
    {
        const std::lock_guard<std::mutex> lock(mMutex);
        mIsOver = true;
    }
    mChanged.notify_all();
    mThread.join();
}

void race(const std::vector<Side>& sides, size_t rounds, std::chrono::milliseconds patience) {
    // Counted without an order, which would order what the sides do, too.
    constexpr auto kNoOrder = std::memory_order_relaxed;
    std::vector<std::atomic<size_t>> reached(sides.size());
    const Watchdog watchdog(
        [&] {
            std::string text;
            for (size_t i = 0; i < sides.size(); ++i) {
                const size_t round = reached[i].load(kNoOrder);
                text += sides[i].name +
                        (round < rounds ? " in round " + std::to_string(round) : " ended") + "; ";
            }
            return text;
        },
        patience);
    std::atomic<size_t> missing{sides.size()};
    std::vector<std::thread> threads;
    threads.reserve(sides.size());
    for (size_t i = 0; i < sides.size(); ++i) {
        threads.emplace_back([&, i] {
            --missing;
            while (missing != 0)
                std::this_thread::yield();
            for (size_t round = 0; round < rounds; ++round) {
                reached[i].store(round, kNoOrder);
                sides[i].operation(round);
            }
            reached[i].store(rounds, kNoOrder);
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
