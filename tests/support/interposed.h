#pragma once

#include <condition_variable>
#include <cstdint>
#include <ctime>
#include <functional>
#include <mutex>

/**
 * The test program's own gettimeofday(), usleep(), close() and more: a program's symbols win over
 * the library's, and the product cannot tell. Everything here may be called from any thread.
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
    /** From now on pauses do not last. */
    void open();
};

/** Which calls on a file are watched: also fstat, fstatfs, statx, fcntl, and mmap but for TSan. */
enum class Watching { CLOSES, ALL };

/** Runs `during` inside each call on one file, before it does anything, on the calling thread; of
 * one file at a time. */
class FileWatch {
public:
    FileWatch(int fd, Watching calls, std::function<void()> during);
    /** Waits until no thread is inside `during`. */
    ~FileWatch();
    FileWatch(const FileWatch&) = delete;
    FileWatch& operator=(const FileWatch&) = delete;
};

/**
 * Holds up every call on one file, for the scope of this object and but for the thread that made
 * it: as a file does whose file system never answers.
 */
class FileGate {
public:
    explicit FileGate(int fd);
    ~FileGate();
    FileGate(const FileGate&) = delete;
    FileGate& operator=(const FileGate&) = delete;

    /** Waits until so many calls are held up, all since the beginning; false after 10 s. */
    bool waitUntilHeld(int count);

private:
    void hold();

    std::mutex mMutex;
    std::condition_variable mChanged;
    // Guarded by mMutex.
    int mHeld = 0;
    bool mIsOpen = false;
    // Goes first: nobody is held any more when the rest goes.
    FileWatch mWatch;
};

/** Lets duplicating a descriptor fail, once told to; no longer than the scope of this object. */
class FewDuplicates {
public:
    FewDuplicates() = default;
    ~FewDuplicates() { lift(); }
    FewDuplicates(const FewDuplicates&) = delete;
    FewDuplicates& operator=(const FewDuplicates&) = delete;

    /** So many duplicates can be made from now on; then there are no descriptors left. */
    void limitTo(int count);
    void lift();
};

/**
 * Runs `before` in each wait of this thread that ends at a time of the wall clock, for the scope of
 * this object. The mutex is held, and `before` may change when the wait ends.
 */
class BeforeWaiting {
public:
    explicit BeforeWaiting(std::function<void(timespec& deadline)> before);
    ~BeforeWaiting();
    BeforeWaiting(const BeforeWaiting&) = delete;
    BeforeWaiting& operator=(const BeforeWaiting&) = delete;
};

/** Runs `during` inside each eventfd_write() of this thread, for the scope of this object. */
class DuringWakeUp {
public:
    explicit DuringWakeUp(std::function<void()> during);
    ~DuringWakeUp();
    DuringWakeUp(const DuringWakeUp&) = delete;
    DuringWakeUp& operator=(const DuringWakeUp&) = delete;
};

/** Runs `during` inside each listen() of this thread, before it has an effect, for this scope. */
class DuringListen {
public:
    explicit DuringListen(std::function<void()> during);
    ~DuringListen();
    DuringListen(const DuringListen&) = delete;
    DuringListen& operator=(const DuringListen&) = delete;
};

/** Gives all files one inode number, and each a time of birth of its own, for this scope. */
class OneInodeNumber {
public:
    OneInodeNumber();
    ~OneInodeNumber();
    OneInodeNumber(const OneInodeNumber&) = delete;
    OneInodeNumber& operator=(const OneInodeNumber&) = delete;
};

}  // namespace testing_support
