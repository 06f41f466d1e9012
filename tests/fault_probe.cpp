// Runs a client's life with one call of the provider's side failing, each in a process of its own:
// every call that it reaches, of every function that it may call.
//
//   fault-probe socket|direct [STEP [CALL]]
//
// With a step only every so manieth call. Prints how many calls of each were made to fail. Exits
// with 1 and a line when something does not hold: a client that is told nothing, a wrong frame,
// something left behind, a lock that is kept, or no next frame when the fault is over.

#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "support/faults.h"

namespace {

using faults::Effect;

/** Errors of a call, each of them by itself. */
struct Row {
    const char* call;
    std::vector<int> errors;
    bool stays;
    Effect effect;
};

constexpr bool kOnce = false;
constexpr bool kStays = true;

const Row kRows[] = {
    {"accept4", {EMFILE, ECONNABORTED, EINTR, ENOMEM}, kOnce, Effect::NONE},
    {"accept4",
     {EMFILE, ENFILE, ENOBUFS, ENOMEM, EPERM, EPROTO, ENETDOWN},
     kStays,
     Effect::SILENCE},
    {"bind", {EADDRINUSE}, kOnce, Effect::LOSS},
    {"chmod", {EPERM}, kOnce, Effect::LOSS},
    {"eventfd", {EMFILE}, kOnce, Effect::LOSS},
    {"fcntl", {EMFILE}, kOnce, Effect::REFUSAL},
    {"fcntl", {EMFILE}, kStays, Effect::REFUSAL},
    {"fflush", {ENOSPC}, kOnce, Effect::REFUSAL},
    {"flock", {EWOULDBLOCK, EINTR}, kOnce, Effect::NONE},
    {"fopen", {EMFILE}, kOnce, Effect::REFUSAL},
    {"fread", {EIO}, kStays, Effect::REFUSAL},
    {"fseek", {ESPIPE}, kOnce, Effect::REFUSAL},
    {"fwrite", {ENOSPC}, kOnce, Effect::REFUSAL},
    {"getsockopt", {ENOBUFS}, kOnce, Effect::LOSS},
    {"gettimeofday", {3600}, kStays, Effect::REFUSAL},
    {"gettimeofday", {-3600}, kStays, Effect::NONE},
    {"listen", {EADDRINUSE}, kOnce, Effect::LOSS},
#ifdef FAULTS_OF_MEMORY
    {"malloc", {ENOMEM}, kOnce, Effect::END},
    {"malloc", {ENOMEM}, kStays, Effect::END},
    {"mmap", {ENOMEM}, kStays, Effect::REFUSAL},
#endif
    {"mapper", {2, 5, -1}, kOnce, Effect::REFUSAL},
    {"mapper", {5, -1}, kStays, Effect::REFUSAL},
    {"poll", {EINTR}, kOnce, Effect::NONE},
    {"poll", {ENOMEM}, kOnce, Effect::LOSS},
    {"pthread_cond_timedwait", {EINTR, ETIMEDOUT, 3600}, kOnce, Effect::NONE},
    {"pthread_create", {EAGAIN}, kOnce, Effect::LOSS},
    {"pthread_create", {EAGAIN}, kStays, Effect::LOSS},
    {"readlink", {EACCES}, kOnce, Effect::REFUSAL},
    {"recvmsg", {EINTR, EAGAIN}, kOnce, Effect::NONE},
    {"recvmsg", {ENOMEM, ECONNRESET}, kOnce, Effect::LOSS},
    {"sendmsg", {EINTR, EAGAIN}, kOnce, Effect::NONE},
    {"sendmsg", {ENOBUFS, EPIPE}, kOnce, Effect::LOSS},
    {"sendmsg", {ETOOMANYREFS}, kStays, Effect::LOSS},
    {"setsockopt", {ENOBUFS}, kOnce, Effect::NONE},
    {"socket", {EMFILE}, kOnce, Effect::LOSS},
    {"statx", {ENOMEM}, kOnce, Effect::REFUSAL},
};

constexpr int kUnreached = 10;
constexpr unsigned kPatienceSeconds = 30;

/** In a process of its own, without threads of the one that it comes from. */
pid_t start(bool isServed, Effect effect, const faults::Fault& fault) {
    fflush(stdout);
    const pid_t child = fork();
    if (child != 0) return child;
    alarm(kPatienceSeconds);
    faults::chosen = fault;
    faults::runSession(isServed, effect);
    exit(faults::calls >= fault.n ? 0 : kUnreached);
}

int endOf(pid_t child, Effect effect) {
    int status = -1;
    waitpid(child, &status, 0);
    if (WIFEXITED(status)) return WEXITSTATUS(status);
    return effect == Effect::END && WTERMSIG(status) == SIGABRT ? 0 : -WTERMSIG(status);
}

/** How many calls were made to fail. Ends the program when something does not hold. */
int runAll(bool isServed, const Row& row, int error, int step) {
    constexpr int kAtOnce = 4;  // they wait more than they work
    int reached = 0;
    for (int tried = 0; reached == tried; tried += kAtOnce) {
        const auto callOf = [&](int i) { return 1 + (tried + i) * step; };
        pid_t children[kAtOnce];
        for (int i = 0; i < kAtOnce; ++i)
            children[i] = start(isServed, row.effect, {row.call, error, row.stays, callOf(i)});
        bool hasHeld = true;
        for (int i = 0; i < kAtOnce; ++i) {
            const int end = endOf(children[i], row.effect);
            if (end != kUnreached) ++reached;
            if (end == kUnreached || end == 0) continue;
            printf("call %d of %s, with %d%s: ended with %d\n", callOf(i), row.call, error,
                   row.stays ? " from then on" : "", end);
            hasHeld = false;
        }
        if (!hasHeld) exit(1);
    }
    return reached;
}

}  // namespace

void faults::fail(const std::string& what) {
    fprintf(stderr, "fault-probe: %s\n", what.c_str());
    _exit(1);
}

int main(int argc, char** argv) {
    if (argc < 2) return 2;
    const bool isServed = strcmp(argv[1], "socket") == 0;
    const rlimit none = {0, 0};
    setrlimit(RLIMIT_CORE, &none);
    const int step = argc >= 3 ? atoi(argv[2]) : 1;  // NOLINT(cert-err34-c)
    int tried = 0;
    for (const Row& row : kRows) {
        if (argc == 4 && strcmp(argv[3], row.call) != 0) continue;
        for (const int error : row.errors) {
            const int calls = runAll(isServed, row, error, step);
            if (calls > 0) printf("%s %d: %d\n", row.call, error, calls);
            if (calls == 0 && isServed)
                faults::fail(row.call + std::string(" is not called any more"));
            tried += calls;
        }
    }
    printf("%d faults, one at a time\n", tried);
    return 0;
}
