#pragma once

#include <sys/types.h>

#include <atomic>
#include <chrono>
#include <cstddef>
#include <functional>
#include <future>
#include <string>
#include <thread>
#include <utility>
#include <vector>

/** Threads that race each other, and what one of them does while another one holds something. */
namespace testing_support {

constexpr std::chrono::seconds kStressPatience(60);

/** Aborts the process, with a line that says where it is, unless this object goes in time. */
class Watchdog {
public:
    explicit Watchdog(std::function<std::string()> where,
                      std::chrono::milliseconds patience = kStressPatience);
    ~Watchdog() {
        mIsOver.set_value();
        mThread.join();
    }
    Watchdog(const Watchdog&) = delete;
    Watchdog& operator=(const Watchdog&) = delete;

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
 * have not ended in time, and says in which operation and round each one is.
 */
void race(const std::vector<Side>& sides, size_t rounds,
          std::chrono::milliseconds patience = kStressPatience);

enum class Other { WAITS, GOES_ON };

/** An operation on another thread, begun where this thread may hold what that one needs. */
class Meanwhile {
public:
    /** Returns when the operation has ended, or when it waits as expected; else the test fails. */
    Meanwhile(const std::function<void()>& operation, Other expected);
    ~Meanwhile() { mThread.join(); }
    Meanwhile(const Meanwhile&) = delete;
    Meanwhile& operator=(const Meanwhile&) = delete;

    /** Looks again. */
    void expect(Other expected) const;

private:
    std::atomic<pid_t> mId{0};
    std::atomic<bool> mHasEnded{false};
    std::thread mThread;
};

}  // namespace testing_support
