#include "support/interposed.h"

#include <dlfcn.h>
#include <sys/stat.h>
#include <sys/time.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <ctime>
#include <mutex>
#include <utility>

namespace testing_support {

namespace {

constexpr useconds_t kFrameSourcePauseUs = 50000;

struct State {
    std::mutex mutex;
    std::condition_variable changed;
    // Guarded by mutex.
    int64_t offsetUs = 0;
    int64_t stoppedAtUs = 0;  // 0: the clock runs
    int64_t reads = 0;
    bool gateClosed = false;
    int64_t pausesBegun = 0;
    int64_t pausesAllowed = 0;
};

struct Watch {
    std::atomic<bool> isOn{false};
    std::recursive_mutex mutex;
    // Guarded by mutex.
    struct stat file {};
    std::function<void()> during;
};

Watch& watch() {
    static auto* const instance = new Watch;
    return *instance;
}

State& state() {
    static auto* const instance = new State;
    return *instance;
}

template <typename Condition>
bool waitFor(std::unique_lock<std::mutex>& lock, Condition condition) {
    return state().changed.wait_until(
        lock, std::chrono::system_clock::now() + std::chrono::seconds(10), condition);
}

}  // namespace

WallClock::~WallClock() {
    const std::lock_guard<std::mutex> lock(state().mutex);
    state().offsetUs = 0;
    state().stoppedAtUs = 0;
}

void WallClock::stepBy(int64_t us) {
    const std::lock_guard<std::mutex> lock(state().mutex);
    state().offsetUs += us;
}

void WallClock::stopAt(int64_t us) {
    const std::lock_guard<std::mutex> lock(state().mutex);
    state().stoppedAtUs = us;
}

bool WallClock::waitForReads(int times) {
    std::unique_lock<std::mutex> lock(state().mutex);
    const int64_t wanted = state().reads + times;
    return waitFor(lock, [wanted] { return state().reads >= wanted; });
}

PauseGate::PauseGate() {
    const std::lock_guard<std::mutex> lock(state().mutex);
    state().gateClosed = true;
    state().pausesBegun = 0;
    state().pausesAllowed = 0;
}

PauseGate::~PauseGate() {
    const std::lock_guard<std::mutex> lock(state().mutex);
    state().gateClosed = false;
    state().changed.notify_all();
}

bool PauseGate::waitUntilPausing() {
    std::unique_lock<std::mutex> lock(state().mutex);
    return waitFor(lock, [] { return state().pausesBegun > state().pausesAllowed; });
}

bool PauseGate::passOnce() {
    if (!waitUntilPausing()) return false;
    {
        const std::lock_guard<std::mutex> lock(state().mutex);
        ++state().pausesAllowed;
        state().changed.notify_all();
    }
    return waitUntilPausing();
}

CloseWatch::CloseWatch(int fd, std::function<void()> during) {
    const std::lock_guard<std::recursive_mutex> lock(watch().mutex);
    fstat(fd, &watch().file);
    watch().during = std::move(during);
    watch().isOn = true;
}

CloseWatch::~CloseWatch() {
    const std::lock_guard<std::recursive_mutex> lock(watch().mutex);
    watch().isOn = false;
    watch().during = nullptr;
}

}  // namespace testing_support

using testing_support::state;
using testing_support::watch;

// NOLINTNEXTLINE(readability-inconsistent-declaration-parameter-name)
extern "C" int gettimeofday(timeval* __restrict time, void* __restrict /*zone*/) noexcept {
    timespec now = {};
    clock_gettime(CLOCK_REALTIME, &now);
    testing_support::State& s = state();
    const std::lock_guard<std::mutex> lock(s.mutex);
    const int64_t realUs = int64_t{now.tv_sec} * 1000000 + now.tv_nsec / 1000;
    const int64_t us = s.stoppedAtUs != 0 ? s.stoppedAtUs : realUs + s.offsetUs;
    time->tv_sec = us / 1000000;
    time->tv_usec = us % 1000000;
    ++s.reads;
    s.changed.notify_all();
    return 0;
}

extern "C" int usleep(useconds_t us) {
    testing_support::State& s = state();
    if (us == testing_support::kFrameSourcePauseUs) {
        std::unique_lock<std::mutex> lock(s.mutex);
        if (s.gateClosed) {
            const int64_t mine = ++s.pausesBegun;
            s.changed.notify_all();
            s.changed.wait(lock, [&] { return !s.gateClosed || s.pausesAllowed >= mine; });
            return 0;
        }
    }
    const timespec pause = {us / 1000000, static_cast<long>(us % 1000000) * 1000};
    return nanosleep(&pause, nullptr);
}

extern "C" int close(int fd) {
    // The next one may be a sanitizer's.
    static auto* const next = reinterpret_cast<int (*)(int)>(dlsym(RTLD_NEXT, "close"));
    if (watch().isOn) {
        struct stat file {};
        const std::lock_guard<std::recursive_mutex> lock(watch().mutex);
        const bool isWatched = watch().during && fstat(fd, &file) == 0 &&
                               file.st_dev == watch().file.st_dev &&
                               file.st_ino == watch().file.st_ino;
        if (isWatched) watch().during();
    }
    return next(fd);
}
