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

#include <cerrno>
#include <csignal>
#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <new>

namespace faults {

// The provider's side blocks a signal that nobody sends, and so does each thread that it makes.
void asProvider(const std::function<void()>& what) {
    sigset_t mark;
    sigemptyset(&mark);
    sigaddset(&mark, SIGUSR1);
    pthread_sigmask(SIG_BLOCK, &mark, nullptr);
    try {
        what();
    } catch (const std::bad_alloc&) {
        isArmed = false;
        fail("an exception came out of the library, which has left its locks held");
    }
    pthread_sigmask(SIG_UNBLOCK, &mark, nullptr);
}

int errorOf(const char* call) {
    if (!isArmed || strcmp(call, chosen.call) != 0) return 0;
    sigset_t blocked;
    pthread_sigmask(SIG_BLOCK, nullptr, &blocked);
    if (sigismember(&blocked, SIGUSR1) == 0) return 0;
    const int n = ++calls;
    if (n != chosen.n && !(chosen.stays && n > chosen.n)) return 0;
    return errno = chosen.error;
}

}  // namespace faults

#define NEXT(name) reinterpret_cast<decltype(&(name))>(dlsym(RTLD_NEXT, #name))

// What is asked for, and what comes back when it fails.
#define FAILING(result, name, parameters, arguments, failure)          \
    extern "C" result name parameters {                                \
        static auto* const next = NEXT(name);                          \
        return faults::errorOf(#name) != 0 ? failure : next arguments; \
    }

// NOLINTBEGIN(readability-inconsistent-declaration-parameter-name)
FAILING(int, accept4, (int a, sockaddr* b, socklen_t* c, int d), (a, b, c, d), -1)
FAILING(int, bind, (int a, const sockaddr* b, socklen_t c), (a, b, c), -1)
FAILING(int, chmod, (const char* a, mode_t b), (a, b), -1)
FAILING(int, eventfd, (unsigned a, int b), (a, b), -1)
FAILING(int, fflush, (FILE * a), (a), EOF)
FAILING(int, flock, (int a, int b), (a, b), -1)
FAILING(FILE*, fopen, (const char* a, const char* b), (a, b), nullptr)
FAILING(size_t, fread, (void* a, size_t b, size_t c, FILE* d), (a, b, c, d), 0)
FAILING(int, fseek, (FILE * a, long b, int c), (a, b, c), -1)
FAILING(size_t, fwrite, (const void* a, size_t b, size_t c, FILE* d), (a, b, c, d), 0)
FAILING(int, getsockopt, (int a, int b, int c, void* d, socklen_t* e), (a, b, c, d, e), -1)
FAILING(int, listen, (int a, int b), (a, b), -1)
FAILING(int, poll, (pollfd * a, nfds_t b, int c), (a, b, c), -1)
FAILING(int, pthread_create, (pthread_t * a, const pthread_attr_t* b, void* (*c)(void*), void* d),
        (a, b, c, d), EAGAIN)
FAILING(ssize_t, readlink, (const char* a, char* b, size_t c), (a, b, c), -1)
FAILING(ssize_t, recvmsg, (int a, msghdr* b, int c), (a, b, c), -1)
FAILING(ssize_t, sendmsg, (int a, const msghdr* b, int c), (a, b, c), -1)
FAILING(int, setsockopt, (int a, int b, int c, const void* d, socklen_t e), (a, b, c, d, e), -1)
FAILING(int, socket, (int a, int b, int c), (a, b, c), -1)
FAILING(int, statx, (int a, const char* b, int c, unsigned d, struct statx* e), (a, b, c, d, e), -1)
#ifdef FAULTS_OF_MEMORY  // a sanitizer has its own mmap, and its own memory
FAILING(void*, mmap, (void* a, size_t b, int c, int d, int e, off_t f), (a, b, c, d, e, f),
        MAP_FAILED)
FAILING(void*, malloc, (size_t a), (a), nullptr)
FAILING(void*, calloc, (size_t a, size_t b), (a, b), nullptr)
#endif

extern "C" int fcntl(int fd, int command, ...) {
    static auto* const next = NEXT(fcntl);
    va_list list;
    va_start(list, command);
    void* const argument = va_arg(list, void*);
    va_end(list);
    if (command == F_DUPFD_CLOEXEC && faults::errorOf("fcntl") != 0) return -1;
    return next(fd, command, argument);
}

/** Stands still, so that no request grows stale on a slow machine; the "error" is a step of it. */
extern "C" int gettimeofday(timeval* __restrict time, void* __restrict /*zone*/) {
    time->tv_sec = 1700000000 + faults::errorOf("gettimeofday");
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

/** All pauses are short. */
extern "C" int usleep(useconds_t /*us*/) {
    const timespec pause = {0, 200000};
    return nanosleep(&pause, nullptr);
}
// NOLINTEND(readability-inconsistent-declaration-parameter-name)
