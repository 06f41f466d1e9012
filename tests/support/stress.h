#pragma once

#include <gtest/gtest.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <cstddef>
#include <cstdio>
#include <cstdlib>
#include <functional>
#include <future>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "support/session_fixture.h"

/** Threads that race each other, and what one of them does while another one holds something. */
namespace testing_support {

/** Aborts the process, with a line that says where it is, unless this object goes in time. */
class Watchdog {
public:
    explicit Watchdog(std::function<std::string()> where)
        : mThread([this, where = std::move(where)] {
              const auto over = mIsOver.get_future().wait_for(std::chrono::seconds(60));
              if (over == std::future_status::ready) return;
              fprintf(stderr, "The watchdog ends what takes too long: %s\n", where().c_str());
              abort();
          }) {}
    ~Watchdog() {
        mIsOver.set_value();
        mThread.join();
    }

private:
    std::promise<void> mIsOver;
    std::thread mThread;
};

/**
 * One thread of a race. It has one operation only, because a second one would put the accesses of
 * the first in an order, and hide a lock that is missing. It takes the number of its round, from 0.
 */
using Side = std::pair<std::string, std::function<void(size_t)>>;

/**
 * Runs each side so often, on a thread of its own. They begin when all are there. Aborts when they
 * have not ended in time, and says in which operation and after how many rounds each one is.
 */
inline void race(const std::vector<Side>& sides, size_t rounds) {
    // Counted without an order, which would order what the sides do, too.
    constexpr auto kNoOrder = std::memory_order_relaxed;
    std::vector<std::atomic<size_t>> reached(sides.size());
    const auto where = [&] {
        std::string text;
        for (size_t i = 0; i < sides.size(); ++i)
            text += sides[i].first + " after " + std::to_string(reached[i].load(kNoOrder)) + "; ";
        return text;
    };
    const Watchdog watchdog(where);
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

enum class Other { WAITS, GOES_ON };

/** An operation on another thread, begun where this thread may hold what that one needs. */
class Meanwhile {
public:
    /** Returns when the operation has ended, or when it waits as expected; else the test fails. */
    Meanwhile(const std::function<void()>& operation, Other expected)
        : mThread([this, operation] {
              mId = gettid();
              operation();
              mHasEnded = true;
          }) {
        expect(expected);
    }
    ~Meanwhile() { mThread.join(); }

    /** Looks again. */
    void expect(Other expected) const {
        // Asleep for many looks: what waits for a moment only is awake in one of them.
        int looks = 0;
        EXPECT_TRUE(eventually([&] {
            looks = expected == Other::WAITS && mId != 0 && isAsleep(mId) ? looks + 1 : 0;
            return mHasEnded || looks == 100;
        }));
        EXPECT_EQ(mHasEnded, expected == Other::GOES_ON);
    }

private:
    std::atomic<pid_t> mId{0};
    std::atomic<bool> mHasEnded{false};
    std::thread mThread;
};

}  // namespace testing_support
