#pragma once

#include <sys/stat.h>

#include <atomic>
#include <climits>
#include <condition_variable>
#include <cstdint>
#include <ctime>
#include <functional>
#include <memory>
#include <mutex>
#include <thread>
#include <utility>

/**
 * The test program's own gettimeofday(), usleep(), close() and more: a program's symbols win over
 * the library's, and the product cannot tell. What changes them does so for the scope of an object.
 */
namespace testing_support {

struct Scoped {
    Scoped() = default;
    Scoped(const Scoped&) = delete;
    Scoped& operator=(const Scoped&) = delete;
};

enum class At { WAITING, WAKING, LISTENING, LOOKING, CALLING_ON_A_FILE, PAUSING };

/** Runs something inside each of this thread's calls of one kind. */
template <At call, typename... Arguments>
class OnThisThread : Scoped {
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
using BeforeWaiting = OnThisThread<At::WAITING, timespec&>;
/** In eventfd_write(). */
using DuringWakeUp = OnThisThread<At::WAKING>;
/** In listen(), before it has an effect. */
using DuringListen = OnThisThread<At::LISTENING>;

/** Gives all files that this thread looks at one inode number, and each a birth of its own. */
struct OneInodeNumber : OnThisThread<At::LOOKING, struct statx&> {
    OneInodeNumber()
        : OnThisThread([](struct statx& status) {
              status.stx_btime.tv_sec = static_cast<int64_t>(std::exchange(status.stx_ino, 1));
          }) {}
};

/** Runs something inside each call of one kind, of any thread; goes when none is inside. */
template <At call, typename... Arguments>
class OnAnyThread : Scoped {
public:
    using What = std::function<void(Arguments...)>;

    explicit OnAnyThread(What what) {
        std::atomic_store(&sWhat, std::make_shared<const What>(std::move(what)));
        sIsSet = true;
    }
    ~OnAnyThread() {
        sIsSet = false;
        const auto last = std::atomic_exchange(&sWhat, std::shared_ptr<const What>());
        while (last.use_count() > 1)
            std::this_thread::yield();
    }

    /** Whether there was something to run. */
    static bool run(Arguments... arguments) {
        const auto what = sIsSet ? std::atomic_load(&sWhat) : nullptr;
        if (what != nullptr) (*what)(arguments...);
        return what != nullptr;
    }

private:
    inline static std::atomic<bool> sIsSet{false};  // a lock would be lost to a child by fork()
    inline static std::shared_ptr<const What> sWhat;
};

/** Which calls on a file are watched: also fstat, fstatfs, statx, fcntl, and mmap but for TSan. */
enum class Watching { CLOSES, ALL };
using DuringFileCall = OnAnyThread<At::CALLING_ON_A_FILE, Watching, int>;
/** Instead of the frame source's pause of 50 ms. */
using InsteadOfPause = OnAnyThread<At::PAUSING>;

/** Runs `during` inside each call on one file, before it does anything; of one file at a time. */
class FileWatch : DuringFileCall {
public:
    FileWatch(int fd, Watching calls, std::function<void()> during);
};

/** Holds threads up. */
class Gate : Scoped {
public:
    /** Waits until so many have come, all since the beginning; false after 10 s. */
    bool waitUntilHeld(int count);
    void letGo(int count);
    void open() { letGo(INT_MAX); }

protected:
    void hold();
    int mLetGo = 0;  // guarded by mMutex

private:
    std::mutex mMutex;
    std::condition_variable mChanged;
    int mHeld = 0;  // guarded by mMutex
};

/** Holds up every call on one file, but of the thread that made it: as a file that never answers.
 */
class FileGate : public Gate {
public:
    explicit FileGate(int fd)
        : mWatch(fd, Watching::ALL, [this, maker = std::this_thread::get_id()] {
              if (std::this_thread::get_id() != maker) hold();
          }) {}
    ~FileGate() { open(); }

private:
    const FileWatch mWatch;
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
struct WallClock : Scoped {
    ~WallClock() { sStepUs = sStoppedAtUs = 0; }

    void stepBy(int64_t us) { sStepUs += us; }
    /** From now on the clock stands at this time. */
    void stopAt(int64_t us) { sStoppedAtUs = us; }

    inline static std::atomic<int64_t> sStepUs{0};
    inline static std::atomic<int64_t> sStoppedAtUs{0};  // 0: it runs
};

/** Lets duplicating a descriptor fail, once told to. */
struct FewDuplicates : Scoped {
    ~FewDuplicates() { lift(); }

    /** So many duplicates can be made from now on; then there are no descriptors left. */
    void limitTo(int64_t count) { sLeft = count; }
    void lift() { sLeft = INT64_MAX; }

    inline static std::atomic<int64_t> sLeft{INT64_MAX};
};

}  // namespace testing_support
