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
#include <cstdarg>

namespace testing_support {

namespace {

std::pair<dev_t, ino_t> fileOf(int fd) {
    struct stat file = {};
    syscall(SYS_fstat, fd, &file);  // not the function, which is watched
    return {file.st_dev, file.st_ino};
}

/** Tells of a call on a file, and makes it by the next of its name, which may be a sanitizer's. */
template <auto& function, typename... Arguments>
auto watched(Watching call, const char* name, int fd, Arguments... arguments) {
    static const auto next = reinterpret_cast<decltype(&function)>(dlsym(RTLD_NEXT, name));
    const int saved = errno;
    DuringFileCall::run(call, fd);
    errno = saved;
    return next(arguments...);
}

}  // namespace

FileWatch::FileWatch(int fd, Watching calls, std::function<void()> during)
    : During([calls, file = fileOf(fd), during = std::move(during)](Watching call, int on) {
          if ((call == Watching::CLOSES || calls == Watching::ALL) && fileOf(on) == file) during();
      }) {}

}  // namespace testing_support

using namespace testing_support;  // NOLINT: what the functions below do

extern "C" int close(int fd) {
    return watched<close>(Watching::CLOSES, "close", fd, fd);
}

// Whatever comes third is passed on as the widest of what it may be.
extern "C" int fcntl(int fd, int command, ...) {
    va_list list;
    va_start(list, command);
    void* const argument = va_arg(list, void*);
    va_end(list);
    if (command == F_DUPFD_CLOEXEC && FewDuplicates::sLeft-- <= 0) {
        errno = EMFILE;
        return -1;
    }
    return watched<fcntl>(Watching::ALL, "fcntl", fd, fd, command, argument);
}

extern "C" int fstat(int fd, struct stat* status) noexcept {
    return watched<fstat>(Watching::ALL, "fstat", fd, fd, status);
}

extern "C" int fstatfs(int fd, struct statfs* status) noexcept {
    return watched<fstatfs>(Watching::ALL, "fstatfs", fd, fd, status);
}

#ifndef __SANITIZE_THREAD__  // which cannot do without its own
extern "C" void* mmap(void* at, size_t size, int access, int flags, int fd, off_t from) noexcept {
    return watched<mmap>(Watching::ALL, "mmap", fd, at, size, access, flags, fd, from);
}
#endif

extern "C" int statx(int folder, const char* __restrict path, int flags, unsigned mask,
                     struct statx* __restrict status) noexcept {
    const int result =
        watched<statx>(Watching::ALL, "statx", folder, folder, path, flags, mask, status);
    if (result == 0) OneInodeNumber::run(*status);
    return result;
}

// NOLINTNEXTLINE(readability-inconsistent-declaration-parameter-name)
extern "C" int gettimeofday(timeval* __restrict time, void* __restrict /*zone*/) noexcept {
    const auto now = std::chrono::system_clock::now().time_since_epoch();
    int64_t us = WallClock::sStoppedAtUs;
    if (us == 0) us = now / std::chrono::microseconds(1) + WallClock::sStepUs;
    *time = {us / 1000000, us % 1000000};
    return 0;
}

extern "C" int usleep(useconds_t us) {
    if (us == 50000 && InsteadOfPause::run()) return 0;
    const timespec pause = {us / 1000000, static_cast<long>(us % 1000000) * 1000};
    return nanosleep(&pause, nullptr);
}

extern "C" int listen(int socket, int backlog) {
    DuringListen::run();
    return static_cast<int>(syscall(SYS_listen, socket, backlog));
}

extern "C" int eventfd_write(int fd, eventfd_t value) {
    DuringWakeUp::run();
    return write(fd, &value, sizeof(value)) == sizeof(value) ? 0 : -1;
}

extern "C" int pthread_cond_timedwait(pthread_cond_t* __restrict condition,
                                      pthread_mutex_t* __restrict mutex,
                                      const timespec* __restrict time) {
    timespec deadline = *time;
    BeforeWaiting::run(deadline);
    return pthread_cond_clockwait(condition, mutex, CLOCK_REALTIME, &deadline);
}
