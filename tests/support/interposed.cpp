#include "support/interposed.h"

#include <dlfcn.h>
#include <fcntl.h>
#include <pthread.h>
#include <sys/eventfd.h>
#include <sys/mman.h>
#include <sys/socket.h>
#include <sys/syscall.h>
#include <sys/time.h>
#include <sys/vfs.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstdarg>

namespace testing_support {

namespace {

std::pair<dev_t, ino_t> fileOf(int fd) {
    struct stat file = {};
    syscall(SYS_fstat, fd, &file);  // not the function, which is watched
    return {file.st_dev, file.st_ino};
}

void tellOf(Watching call, int fd) {
    const int saved = errno;
    DuringFileCall::run(call, fd);
    errno = saved;
}

}  // namespace

FileWatch::FileWatch(int fd, Watching calls, std::function<void()> during)
    : OnAnyThread([calls, file = fileOf(fd), during = std::move(during)](Watching call, int on) {
          if ((call == Watching::CLOSES || calls == Watching::ALL) && fileOf(on) == file) during();
      }) {}

bool Gate::waitUntilHeld(int count) {
    std::unique_lock<std::mutex> lock(mMutex);
    return mChanged.wait_for(lock, std::chrono::seconds(10), [&] { return mHeld >= count; });
}

void Gate::letGo(int count) {
    const std::lock_guard<std::mutex> lock(mMutex);
    mLetGo = count;
    mChanged.notify_all();
}

void Gate::hold() {
    std::unique_lock<std::mutex> lock(mMutex);
    const int mine = ++mHeld;
    mChanged.notify_all();
    mChanged.wait(lock, [&] { return mLetGo >= mine; });
}

bool PauseGate::passOnce() {
    if (!waitUntilPausing()) return false;
    letGo(mLetGo + 1);
    return waitUntilPausing();
}

}  // namespace testing_support

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
    std::atomic<int64_t>& left = testing_support::FewDuplicates::sLeft;
    if (command == F_DUPFD_CLOEXEC && left == 0) {
        errno = EMFILE;
        return -1;
    }
    const int result = next(fd, command, argument);
    if (command == F_DUPFD_CLOEXEC && result >= 0) --left;
    return result;
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

extern "C" int statx(int folder, const char* __restrict path, int flags, unsigned mask,
                     struct statx* __restrict status) noexcept {
    tellOf(Watching::ALL, folder);
    const long result = syscall(SYS_statx, folder, path, flags, mask, status);
    if (result == 0) testing_support::OneInodeNumber::run(*status);
    return static_cast<int>(result);
}

// NOLINTNEXTLINE(readability-inconsistent-declaration-parameter-name)
extern "C" int gettimeofday(timeval* __restrict time, void* __restrict /*zone*/) noexcept {
    using testing_support::WallClock;
    timespec now = {};
    clock_gettime(CLOCK_REALTIME, &now);
    const int64_t nowUs = now.tv_sec * 1000000 + now.tv_nsec / 1000 + WallClock::sStepUs;
    const int64_t stoppedAtUs = WallClock::sStoppedAtUs;
    const int64_t us = stoppedAtUs != 0 ? stoppedAtUs : nowUs;
    *time = {us / 1000000, us % 1000000};
    return 0;
}

extern "C" int usleep(useconds_t us) {
    if (us == 50000 && testing_support::InsteadOfPause::run()) return 0;
    const timespec pause = {us / 1000000, static_cast<long>(us % 1000000) * 1000};
    return nanosleep(&pause, nullptr);
}

extern "C" int listen(int socket, int backlog) {
    testing_support::DuringListen::run();
    return static_cast<int>(syscall(SYS_listen, socket, backlog));
}

extern "C" int eventfd_write(int fd, eventfd_t value) {
    testing_support::DuringWakeUp::run();
    return write(fd, &value, sizeof(value)) == sizeof(value) ? 0 : -1;
}

extern "C" int pthread_cond_timedwait(pthread_cond_t* __restrict condition,
                                      pthread_mutex_t* __restrict mutex,
                                      const timespec* __restrict time) {
    timespec deadline = *time;
    testing_support::BeforeWaiting::run(deadline);
    return pthread_cond_clockwait(condition, mutex, CLOCK_REALTIME, &deadline);
}
