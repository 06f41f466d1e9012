#pragma once

#include <sys/stat.h>

#include <atomic>
#include <climits>
#include <condition_variable>
#include <cstdint>
#include <ctime>
#include <functional>
#include <mutex>
#include <thread>
#include <utility>

/**
 * The test program's own gettimeofday(), usleep(), close() and more: a program's symbols win over
 * the library's, and the product cannot tell. What changes them does so for the scope of an object.
 */
namespace testing_support {

/** Runs something inside each of this thread's calls of one kind. */
template <typename Call, typename... Arguments>
class OnThisThread {
public:
    explicit OnThisThread(std::function<void(Arguments...)> what) { sWhat = std::move(what); }
    ~OnThisThread() { sWhat = nullptr; }

    static void run(Arguments... arguments) {
        if (sWhat) sWhat(arguments...);
    }

private:
    inline static thread_local std::function<void(Arguments...)> sWhat;
};

/** In each wait until a time of the wall clock, which it may change. The mutex is held. */
using BeforeWaiting = OnThisThread<struct Waits, timespec&>;
/** In eventfd_write(). */
using DuringWakeUp = OnThisThread<struct WakesUp>;
/** In listen(), before it has an effect. */
using DuringListen = OnThisThread<struct Listens>;

/** Gives all files that this thread looks at one inode number, and each a birth of its own. */
struct OneInodeNumber : OnThisThread<struct Looks, struct statx&> {
    OneInodeNumber()
        : OnThisThread([](struct statx& status) {
              status.stx_btime.tv_sec = static_cast<int64_t>(std::exchange(status.stx_ino, 1));
          }) {}
};

/** Runs something inside each call of one kind, of any thread; goes when none is inside. */
template <typename Call, typename... Arguments>
class OnAnyThread {
public:
    explicit OnAnyThread(std::function<void(Arguments...)> what) {
        sWhat = std::move(what);
        sIsSet = true;
    }
    ~OnAnyThread() {
        sIsSet = false;
        while (sInside > 0)
            std::this_thread::yield();
    }

    /** Whether there was something to run. */
    static bool run(Arguments... arguments) {
        if (!sIsSet) return false;
        ++sInside;
        const bool isStillSet = sIsSet;
        if (isStillSet) sWhat(arguments...);
        --sInside;
        return isStillSet;
    }

private:
    // No lock, which would be lost to a child by fork().
    inline static std::atomic<bool> sIsSet{false};
    inline static std::atomic<int> sInside{0};
    inline static std::function<void(Arguments...)> sWhat;
};

/** Which calls on a file are watched: also fstat, fstatfs, statx, fcntl, and mmap but for TSan. */
enum class Watching { CLOSES, ALL };
using DuringFileCall = OnAnyThread<struct CallsOnAFile, Watching, int>;
/** Instead of the frame source's pause of 50 ms. */
using InsteadOfPause = OnAnyThread<struct Pauses>;

/** Runs `during` inside each call on one file, before it does anything; of one file at a time. */
struct FileWatch : DuringFileCall {
    FileWatch(int fd, Watching calls, std::function<void()> during);
};

/** Holds threads up. */
class Gate {
public:
    void hold();
    /** Waits until so many have come, all since the beginning; false after 10 s. */
    bool waitUntilHeld(int count);
    void letGo(int count);
    void open() { letGo(INT_MAX); }

protected:
    int mLetGo = 0;  // guarded by mMutex

private:
    std::mutex mMutex;
    std::condition_variable mChanged;
    int mHeld = 0;  // guarded by mMutex
};

/** Holds the frame source in its pause. For one thread at a time. */
class PauseGate : public Gate {
public:
    ~PauseGate() { open(); }

    bool waitUntilPausing() { return waitUntilHeld(mLetGo + 1); }
    /** Lets one pause go by and waits until the next; false after 10 s. */
    bool passOnce();

private:
    const InsteadOfPause mPause{[this] { hold(); }};
};

/** Steps the wall clock, or stops it. */
struct WallClock {
    ~WallClock() { sStepUs = sStoppedAtUs = 0; }

    void stepBy(int64_t us) { sStepUs += us; }
    /** From now on the clock stands at this time. */
    void stopAt(int64_t us) { sStoppedAtUs = us; }

    inline static std::atomic<int64_t> sStepUs{0};
    inline static std::atomic<int64_t> sStoppedAtUs{0};  // 0: it runs
};

/** Lets duplicating a descriptor fail, once told to. */
struct FewDuplicates {
    ~FewDuplicates() { lift(); }

    /** So many duplicates can be made from now on; then there are no descriptors left. */
    void limitTo(int64_t count) { sLeft = count; }
    void lift() { sLeft = INT64_MAX; }

    inline static std::atomic<int64_t> sLeft{INT64_MAX};
};

}  // namespace testing_support
