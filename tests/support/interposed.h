#pragma once

#include <cstdint>
#include <functional>

/**
 * The test program's own gettimeofday(), usleep() and close(): a program's symbols win over the
 * library's, and the product cannot tell. Everything here may be called from any thread.
 */
namespace testing_support {

/** Steps the wall clock, or stops it, for the scope of this object. */
class WallClock {
public:
    WallClock() = default;
    ~WallClock();
    WallClock(const WallClock&) = delete;
    WallClock& operator=(const WallClock&) = delete;

    void stepBy(int64_t us);
    /** From now on the clock stands at this time. */
    void stopAt(int64_t us);
    /** Waits until the clock has been read `times` more; false after 10 s. */
    bool waitForReads(int times);
};

/** Holds the frame source in its pause for the scope of this object. */
class PauseGate {
public:
    PauseGate();
    ~PauseGate();
    PauseGate(const PauseGate&) = delete;
    PauseGate& operator=(const PauseGate&) = delete;

    /** Waits until a thread is in its pause of 50 ms; false after 10 s. */
    bool waitUntilPausing();
    /** Lets one pause go by and waits until the next; false after 10 s. */
    bool passOnce();
};

/** Runs `during` inside each close of the watched file, on the closing thread, one at a time. */
class CloseWatch {
public:
    CloseWatch(int fd, std::function<void()> during);
    ~CloseWatch();
    CloseWatch(const CloseWatch&) = delete;
    CloseWatch& operator=(const CloseWatch&) = delete;
};

}  // namespace testing_support
