#pragma once

#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
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

enum class Of { THIS_THREAD, ANY_THREAD };

/** Runs something inside each call of one kind; goes when no thread is inside. One at a time. */
template <typename Call, Of threads, typename... Arguments>
class During {
public:
    explicit During(std::function<void(Arguments...)> what) {
        sWhat = std::move(what);
        sThread = threads == Of::ANY_THREAD ? -1 : gettid();
    }
    During(const During&) = delete;
    ~During() {
        sThread = 0;
        while (sInside > 0)
            std::this_thread::yield();
    }

    /** Whether there was something to run. */
    static bool run(Arguments... arguments) {
        if (!isMeant()) return false;
        ++sInside;
        const bool isStillMeant = isMeant();
        if (isStillMeant) sWhat(arguments...);
        --sInside;
        return isStillMeant;
    }

private:
    static bool isMeant() {
        const pid_t thread = sThread;
        return thread != 0 && (thread == -1 || thread == gettid());
    }

    // No lock, which would be lost to a child by fork().
    inline static std::atomic<pid_t> sThread{0};  // 0: none, -1: any
    inline static std::atomic<int> sInside{0};
    // Stays, because threads may still be in a call when the process ends.
    inline static auto& sWhat = *new std::function<void(Arguments...)>;
};

/** In each wait until a time of the wall clock, which it may change. The mutex is held. */
using BeforeWaiting = During<struct Waits, Of::THIS_THREAD, timespec&>;
/** In eventfd_write(). */
using DuringWakeUp = During<struct WakesUp, Of::THIS_THREAD>;
/** In listen(), before it has an effect. */
using DuringListen = During<struct Listens, Of::THIS_THREAD>;

/** Gives all files that this thread looks at one inode number, and each a birth of its own. */
struct OneInodeNumber : During<struct Looks, Of::THIS_THREAD, struct statx&> {
    OneInodeNumber()
        : During([](struct statx& status) {
              status.stx_btime.tv_sec = static_cast<int64_t>(std::exchange(status.stx_ino, 1));
          }) {}
};

/** Which calls on a file are watched: also fstat, fstatfs, statx, fcntl, and mmap but for TSan. */
enum class Watching { CLOSES, ALL };
using DuringFileCall = During<struct CallsOnAFile, Of::ANY_THREAD, Watching, int>;
/** Instead of the frame source's pause of 50 ms. */
using InsteadOfPause = During<struct Pauses, Of::ANY_THREAD>;

/** Runs `during` inside each call on one file, before it does anything; of one file at a time. */
struct FileWatch : DuringFileCall {
    FileWatch(int fd, Watching calls, std::function<void()> during);
};

/** Holds threads up, for good until they are let go of. */
class Gate {
public:
    void hold() {
        std::unique_lock<std::mutex> lock(mMutex);
        const int mine = ++mHeld;
        mChanged.notify_all();
        mChanged.wait(lock, [&] { return mLetGo >= mine; });
    }
    /** Waits until so many have come, all since the beginning; false after 10 s. */
    bool waitUntilHeld(int count) {
        std::unique_lock<std::mutex> lock(mMutex);
        return mChanged.wait_for(lock, std::chrono::seconds(10), [&] { return mHeld >= count; });
    }
    /** Those that came first, so many, and from now on. */
    void letGo(int count) {
        const std::lock_guard<std::mutex> lock(mMutex);
        mLetGo = count;
        mChanged.notify_all();
    }
    void open() { letGo(INT_MAX); }

private:
    std::mutex mMutex;
    std::condition_variable mChanged;
    int mHeld = 0;   // guarded by mMutex
    int mLetGo = 0;  // guarded by mMutex
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
    ~FewDuplicates() { sLeft = INT64_MAX; }

    /** So many duplicates can be made from now on, all below 0; then no descriptors are left. */
    void limitTo(int64_t count) { sLeft = count < 0 ? INT64_MAX : count; }

    inline static std::atomic<int64_t> sLeft{INT64_MAX};
};

}  // namespace testing_support
