#include "support/faults.h"

#include <dlfcn.h>
#include <fcntl.h>
#include <poll.h>
#include <pthread.h>
#include <sys/eventfd.h>
#include <sys/file.h>
#include <sys/mman.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/time.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <memory>
#include <new>

namespace faults {

namespace {

thread_local bool tIsProvider = false;

Fault sFault = {};
int sFirst = 0;
std::atomic<bool> sIsArmed{false};
std::atomic<int> sCalls{0};
std::atomic<bool> sDoPausesEnd{true};

bool fails(const char* call) {
    const int error = errorOf(call);
    if (error != 0) errno = error;
    return error != 0;
}

/** A thread is on the side of the one that makes it. */
struct Start {
    void* (*body)(void*);
    void* argument;
    bool isProvider;
};

void* begin(void* argument) {
    const std::unique_ptr<Start> start(static_cast<Start*>(argument));
    tIsProvider = start->isProvider;
    return start->body(start->argument);
}

}  // namespace

void arm(const Fault& fault, int n) {
    sFault = fault;
    sFirst = n;
    sIsArmed = true;
}

void heal() {
    sIsArmed = false;
}

bool wasReached() {
    return sCalls >= sFirst;
}

void asProvider(const std::function<void()>& what) {
    tIsProvider = true;
    try {
        what();
    } catch (const std::bad_alloc&) {
        fputs("an exception came out of the library, which has left its locks held\n", stderr);
        _exit(1);
    }
    tIsProvider = false;
}

void letPausesEnd(bool mayEnd) {
    sDoPausesEnd = mayEnd;
}

int errorOf(const char* call) {
    if (!tIsProvider || !sIsArmed || strcmp(call, sFault.call) != 0) return 0;
    const int n = ++sCalls;
    return n == sFirst || (sFault.stays && n > sFirst) ? sFault.error : 0;
}

}  // namespace faults

#define NEXT(name) reinterpret_cast<decltype(&(name))>(dlsym(RTLD_NEXT, #name))

// What is asked for, what comes back when it fails, and what the declaration says of exceptions.
#define FAILING(result, name, parameters, arguments, failure, exceptions) \
    extern "C" result name parameters exceptions {                        \
        static auto* const next = NEXT(name);                             \
        if (faults::fails(#name)) return failure;                         \
        return next arguments;                                            \
    }

// NOLINTBEGIN(readability-inconsistent-declaration-parameter-name)
FAILING(int, accept4, (int fd, sockaddr* peer, socklen_t* size, int flags), (fd, peer, size, flags),
        -1, )
FAILING(int, bind, (int fd, const sockaddr* address, socklen_t size), (fd, address, size), -1,
        noexcept)
FAILING(int, chmod, (const char* path, mode_t mode), (path, mode), -1, noexcept)
FAILING(int, eventfd, (unsigned count, int flags), (count, flags), -1, noexcept)
FAILING(int, fflush, (FILE * file), (file), EOF, )
FAILING(int, flock, (int fd, int operation), (fd, operation), -1, noexcept)
FAILING(FILE*, fopen, (const char* path, const char* mode), (path, mode), nullptr, )
FAILING(size_t, fread, (void* data, size_t size, size_t count, FILE* file),
        (data, size, count, file), 0, )
FAILING(int, fseek, (FILE * file, long to, int from), (file, to, from), -1, )
FAILING(size_t, fwrite, (const void* data, size_t size, size_t count, FILE* file),
        (data, size, count, file), 0, )
FAILING(int, getsockopt, (int fd, int level, int option, void* value, socklen_t* size),
        (fd, level, option, value, size), -1, noexcept)
FAILING(int, listen, (int fd, int backlog), (fd, backlog), -1, noexcept)
FAILING(int, poll, (pollfd * entries, nfds_t count, int timeout), (entries, count, timeout), -1, )
FAILING(ssize_t, readlink, (const char* path, char* target, size_t size), (path, target, size), -1,
        noexcept)
FAILING(ssize_t, recvmsg, (int fd, msghdr* message, int flags), (fd, message, flags), -1, )
FAILING(ssize_t, sendmsg, (int fd, const msghdr* message, int flags), (fd, message, flags), -1, )
FAILING(int, setsockopt, (int fd, int level, int option, const void* value, socklen_t size),
        (fd, level, option, value, size), -1, noexcept)
FAILING(int, socket, (int domain, int type, int protocol), (domain, type, protocol), -1, noexcept)
FAILING(int, statx, (int fd, const char* path, int flags, unsigned mask, struct statx* status),
        (fd, path, flags, mask, status), -1, noexcept)
#ifdef FAULTS_OF_MEMORY  // a sanitizer has its own mmap, and its own memory
FAILING(void*, mmap, (void* at, size_t size, int access, int flags, int fd, off_t offset),
        (at, size, access, flags, fd, offset), MAP_FAILED, noexcept)

extern "C" void* __libc_malloc(size_t size);
extern "C" void* __libc_calloc(size_t count, size_t size);
extern "C" void* malloc(size_t size) {
    return faults::fails("malloc") ? nullptr : __libc_malloc(size);
}
extern "C" void* calloc(size_t count, size_t size) {
    return faults::fails("malloc") ? nullptr : __libc_calloc(count, size);
}
#endif

extern "C" int fcntl(int fd, int command, ...) {
    static auto* const next = NEXT(fcntl);
    va_list list;
    va_start(list, command);
    void* const argument = va_arg(list, void*);
    va_end(list);
    if (command == F_DUPFD_CLOEXEC && faults::fails("fcntl")) return -1;
    return next(fd, command, argument);
}

extern "C" int pthread_create(pthread_t* thread, const pthread_attr_t* attributes,
                              void* (*body)(void*), void* argument) noexcept {
    static auto* const next = NEXT(pthread_create);
    const int error = faults::errorOf("pthread_create");
    if (error != 0) return error;
    auto* const start = new (std::nothrow) faults::Start{body, argument, faults::tIsProvider};
    if (start == nullptr) return EAGAIN;
    const int result = next(thread, attributes, faults::begin, start);
    if (result != 0) delete start;
    return result;
}

/** Stands still, so that no request grows stale on a slow machine; the "error" is a step of it. */
extern "C" int gettimeofday(timeval* __restrict time, void* __restrict /*zone*/) noexcept {
    constexpr time_t kNow = 1700000000;
    time->tv_sec = kNow + faults::errorOf("gettimeofday");
    time->tv_usec = 0;
    return 0;
}

/** Ends at once, as after a step forward or for no reason, or an hour late, as after one back. */
extern "C" int pthread_cond_timedwait(pthread_cond_t* __restrict condition,
                                      pthread_mutex_t* __restrict mutex,
                                      const timespec* __restrict time) {
    static auto* const next = NEXT(pthread_cond_timedwait);
    timespec deadline = *time;
    const int error = faults::errorOf("pthread_cond_timedwait");
    if (error == EINTR) return 0;
    if (error == ETIMEDOUT) return error;
    deadline.tv_sec += error;
    return next(condition, mutex, &deadline);
}

/** The pause of the test frame source: for its pace, and for who makes it to get hold of it. */
extern "C" int usleep(useconds_t us) {
    constexpr useconds_t kSourcesPause = 50000;
    const timespec pause = {0, 200000};
    do {
        nanosleep(&pause, nullptr);
    } while (us == kSourcesPause && !faults::sDoPausesEnd);
    return 0;
}
// NOLINTEND(readability-inconsistent-declaration-parameter-name)
