#include "support/interposed.h"

#include <dlfcn.h>
#include <fcntl.h>
#include <pthread.h>
#include <sys/eventfd.h>
#include <sys/mman.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/time.h>
#include <sys/vfs.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <chrono>
#include <climits>
#include <condition_variable>
#include <cstdarg>
#include <ctime>
#include <functional>
#include <limits>
#include <mutex>
#include <thread>
#include <utility>

namespace testing_support {

namespace {

constexpr useconds_t kFrameSourcePauseUs = 50000;

std::atomic<bool> hasOneInodeNumber{false};
std::atomic<int> duplicatesLeft{INT_MAX};
thread_local std::function<void(timespec& deadline)> beforeWaiting;
thread_local std::function<void()> duringWakeUp;
thread_local std::function<void()> duringListen;

struct State {
    std::mutex mutex;
    std::condition_variable changed;
    // Guarded by mutex.
    int64_t offsetUs = 0;
    int64_t stoppedAtUs = 0;  // 0: the clock runs
    bool gateClosed = false;
    int64_t pausesBegun = 0;
    int64_t pausesAllowed = 0;
};

/** The one file on which calls are watched. */
struct Watched {
    std::atomic<bool> isAny{false};
    std::mutex mutex;
    std::condition_variable noneInside;
    // Guarded by mutex.
    std::pair<dev_t, ino_t> file;
    Watching calls = Watching::ALL;
    std::function<void()> during;
    int inside = 0;
};

Watched& watched() {
    static auto* const instance = new Watched;
    return *instance;
}

std::pair<dev_t, ino_t> fileOf(int fd) {
    struct stat file = {};
    syscall(SYS_fstat, fd, &file);  // not the function, which is watched
    return {file.st_dev, file.st_ino};
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

void tellOf(Watching call, int fd) {
    if (!watched().isAny) return;
    const int saved = errno;
    const std::pair<dev_t, ino_t> file = fileOf(fd);
    std::unique_lock<std::mutex> lock(watched().mutex);
    if (watched().during && file == watched().file &&
        (call == Watching::CLOSES || watched().calls == Watching::ALL)) {
        const std::function<void()> during = watched().during;
        ++watched().inside;
        lock.unlock();
        during();
        lock.lock();
        --watched().inside;
        watched().noneInside.notify_all();
    }
    errno = saved;
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

void PauseGate::open() {
    const std::lock_guard<std::mutex> lock(state().mutex);
    state().pausesAllowed = std::numeric_limits<int64_t>::max();
    state().changed.notify_all();
}

FileWatch::FileWatch(int fd, Watching calls, std::function<void()> during) {
    const std::lock_guard<std::mutex> lock(watched().mutex);
    watched().calls = calls;
    watched().file = fileOf(fd);
    watched().during = std::move(during);
    watched().isAny = true;
}

FileWatch::~FileWatch() {
    std::unique_lock<std::mutex> lock(watched().mutex);
    watched().isAny = false;
    watched().during = nullptr;
    watched().noneInside.wait(lock, [] { return watched().inside == 0; });
}

FileGate::FileGate(int fd)
    : mWatch(fd, Watching::ALL, [this, maker = std::this_thread::get_id()] {
          if (std::this_thread::get_id() != maker) hold();
      }) {}

FileGate::~FileGate() {
    const std::lock_guard<std::mutex> lock(mMutex);
    mIsOpen = true;
    mChanged.notify_all();
}

void FileGate::hold() {
    std::unique_lock<std::mutex> lock(mMutex);
    ++mHeld;
    mChanged.notify_all();
    mChanged.wait(lock, [this] { return mIsOpen; });
}

bool FileGate::waitUntilHeld(int count) {
    std::unique_lock<std::mutex> lock(mMutex);
    return mChanged.wait_until(lock, std::chrono::system_clock::now() + std::chrono::seconds(10),
                               [&] { return mHeld >= count; });
}

void FewDuplicates::limitTo(int count) {
    duplicatesLeft = count;
}

void FewDuplicates::lift() {
    duplicatesLeft = INT_MAX;
}

BeforeWaiting::BeforeWaiting(std::function<void(timespec& deadline)> before) {
    beforeWaiting = std::move(before);
}

BeforeWaiting::~BeforeWaiting() {
    beforeWaiting = nullptr;
}

DuringWakeUp::DuringWakeUp(std::function<void()> during) {
    duringWakeUp = std::move(during);
}

DuringWakeUp::~DuringWakeUp() {
    duringWakeUp = nullptr;
}

DuringListen::DuringListen(std::function<void()> during) {
    duringListen = std::move(during);
}

DuringListen::~DuringListen() {
    duringListen = nullptr;
}

OneInodeNumber::OneInodeNumber() {
    hasOneInodeNumber = true;
}

OneInodeNumber::~OneInodeNumber() {
    hasOneInodeNumber = false;
}

}  // namespace testing_support

using testing_support::state;
using testing_support::tellOf;
using testing_support::Watching;

// The next one may be a sanitizer's.
#define NEXT(name) reinterpret_cast<decltype(&(name))>(dlsym(RTLD_NEXT, #name))

extern "C" int close(int fd) {
    static auto* const next = NEXT(close);
    tellOf(Watching::CLOSES, fd);
    return next(fd);
}

// Whatever comes third is passed on as the widest of what it may be.
extern "C" int fcntl(int fd, int command, ...) {
    static auto* const next = NEXT(fcntl);
    va_list list;
    va_start(list, command);
    void* const argument = va_arg(list, void*);
    va_end(list);
    tellOf(Watching::ALL, fd);
    std::atomic<int>& left = testing_support::duplicatesLeft;
    if (command != F_DUPFD_CLOEXEC || left == INT_MAX) return next(fd, command, argument);
    if (left == 0) {
        errno = EMFILE;
        return -1;
    }
    const int made = next(fd, command, argument);
    if (made >= 0) --left;
    return made;
}

extern "C" int fstat(int fd, struct stat* status) noexcept {
    static auto* const next = NEXT(fstat);
    tellOf(Watching::ALL, fd);
    return next(fd, status);
}

extern "C" int fstatfs(int fd, struct statfs* status) noexcept {
    static auto* const next = NEXT(fstatfs);
    tellOf(Watching::ALL, fd);
    return next(fd, status);
}

#ifndef __SANITIZE_THREAD__  // which cannot do without its own
extern "C" void* mmap(void* at, size_t size, int access, int flags, int fd, off_t from) noexcept {
    static auto* const next = NEXT(mmap);
    if (fd >= 0) tellOf(Watching::ALL, fd);
    return next(at, size, access, flags, fd, from);
}
#endif

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

extern "C" int listen(int socket, int backlog) {
    if (testing_support::duringListen) testing_support::duringListen();
    return static_cast<int>(syscall(SYS_listen, socket, backlog));
}

extern "C" int eventfd_write(int fd, eventfd_t value) {
    if (testing_support::duringWakeUp) testing_support::duringWakeUp();
    return write(fd, &value, sizeof(value)) == sizeof(value) ? 0 : -1;
}

extern "C" int pthread_cond_timedwait(pthread_cond_t* __restrict condition,
                                      pthread_mutex_t* __restrict mutex,
                                      const timespec* __restrict time) {
    timespec deadline = *time;
    if (testing_support::beforeWaiting) testing_support::beforeWaiting(deadline);
    return pthread_cond_clockwait(condition, mutex, CLOCK_REALTIME, &deadline);
}

extern "C" int statx(int folder, const char* __restrict path, int flags, unsigned mask,
                     struct statx* __restrict status) noexcept {
    tellOf(Watching::ALL, folder);
    const long result = syscall(SYS_statx, folder, path, flags, mask, status);
    if (result == 0 && testing_support::hasOneInodeNumber) {
        status->stx_btime.tv_sec = static_cast<int64_t>(std::exchange(status->stx_ino, 1));
    }
    return static_cast<int>(result);
}
