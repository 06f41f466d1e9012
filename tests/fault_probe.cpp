// Runs a client's life with one call of the provider's side failing, each in a process of its own:
// every call that it reaches, of every function that it may call.
//
//   fault-probe [STEP [CALL]]
//
// With a step of 5 only every fifth call of each fails. Prints how many calls of each were made to
// fail. Exits with 1 and a line when something does not hold: a client that is told nothing, a
// wrong frame, something left behind, a lock that is kept, or no next frame when the fault is over.

#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <vector>

#include "support/faults.h"

namespace {

using faults::Effect;

/** Errors of a call, each of them by itself, once or from then on. */
struct Row {
    const char* call;
    Effect effect;
    std::vector<int> once;
    std::vector<int> stays;
};

const Row kRows[] = {
    {"accept4", Effect::NONE, {EMFILE, ECONNABORTED, EINTR, ENOMEM}, {}},
    {"accept4", Effect::SILENCE, {}, {EMFILE, ENFILE, ENOBUFS, ENOMEM, EPERM, EPROTO, ENETDOWN}},
    {"bind", Effect::LOSS, {EADDRINUSE}, {}},
#ifdef FAULTS_OF_MEMORY
    {"calloc", Effect::LOSS, {ENOMEM}, {ENOMEM}},  // of a file's frame, and for a thread
    {"malloc", Effect::END, {ENOMEM}, {ENOMEM}},
    {"mmap", Effect::REFUSAL, {}, {ENOMEM}},
#endif
    {"chmod", Effect::LOSS, {EPERM}, {}},
    {"eventfd", Effect::LOSS, {EMFILE}, {}},
    {"fcntl", Effect::REFUSAL, {EMFILE}, {EMFILE}},
    {"fflush", Effect::REFUSAL, {ENOSPC}, {}},
    {"flock", Effect::NONE, {EWOULDBLOCK, EINTR}, {}},
    {"fopen", Effect::REFUSAL, {EMFILE}, {}},
    {"fread", Effect::REFUSAL, {}, {EIO}},
    {"fseek", Effect::REFUSAL, {ESPIPE}, {}},
    {"fwrite", Effect::REFUSAL, {ENOSPC}, {}},
    {"getsockopt", Effect::LOSS, {ENOBUFS}, {}},
    {"gettimeofday", Effect::REFUSAL, {}, {3600}},
    {"gettimeofday", Effect::NONE, {}, {-3600}},
    {"listen", Effect::LOSS, {EADDRINUSE}, {}},
    {"mapper", Effect::REFUSAL, {2, 5, -1}, {5, -1}},
    {"poll", Effect::NONE, {EINTR}, {}},
    {"poll", Effect::LOSS, {ENOMEM}, {}},
    {"pthread_cond_timedwait", Effect::NONE, {EINTR, ETIMEDOUT, 3600}, {}},
    {"pthread_create", Effect::LOSS, {EAGAIN}, {EAGAIN}},
    {"readlink", Effect::REFUSAL, {EACCES}, {}},
    {"recvmsg", Effect::NONE, {EINTR, EAGAIN}, {}},
    {"recvmsg", Effect::LOSS, {ENOMEM, ECONNRESET}, {}},
    {"sendmsg", Effect::NONE, {EINTR, EAGAIN}, {}},
    {"sendmsg", Effect::LOSS, {ENOBUFS, EPIPE}, {ETOOMANYREFS}},
    {"setsockopt", Effect::NONE, {ENOBUFS}, {}},
    {"socket", Effect::LOSS, {EMFILE}, {}},
    {"statx", Effect::REFUSAL, {ENOMEM}, {}},
};

constexpr int kUnreached = 10;

/** In a process of its own, without threads of the one that it comes from. */
void start(Effect effect, const faults::Fault& fault) {
    fflush(stdout);
    if (fork() != 0) return;
    alarm(30);
    faults::chosen = fault;
    faults::runSession(effect);
    exit(faults::calls >= fault.n ? 0 : kUnreached);
}

/** Each call that the client's life reaches, or one in so many as the step says. Ends the program
 * when something does not hold. */
void runAll(const Row& row, bool stays, int error, int step) {
    constexpr int kAtOnce = 4;  // they wait more than they work
    int reached = 0;
    for (int tried = 0; reached == tried; tried += kAtOnce) {
        for (int i = 0; i < kAtOnce; ++i)
            start(row.effect, {row.call, error, stays, 1 + (tried + i) * step});
        for (int i = 0; i < kAtOnce; ++i) {
            int status = -1;
            wait(&status);
            if (status == W_EXITCODE(kUnreached, 0)) continue;
            ++reached;
            if (status == 0 || (row.effect == Effect::END && WTERMSIG(status) == SIGABRT)) continue;
            printf("%s, with %d%s: ended with %#x\n", row.call, error, stays ? " from then on" : "",
                   static_cast<unsigned>(status));
            exit(1);
        }
    }
    if (reached == 0) faults::fail(row.call + std::string(" is not called any more"));
    printf("%s %d: %d\n", row.call, error, reached);
}

}  // namespace

void faults::fail(const std::string& what) {
    fprintf(stderr, "fault-probe, call %d: %s\n", chosen.n, what.c_str());
    _exit(1);
}

int main(int argc, char** argv) {
    const rlimit none = {0, 0};
    setrlimit(RLIMIT_CORE, &none);
    const int step = argc > 1 ? atoi(argv[1]) : 1;  // NOLINT(cert-err34-c)
    for (const Row& row : kRows) {
        if (argc > 2 && argv[2] != std::string(row.call)) continue;
        for (const bool stays : {false, true}) {
            for (const int error : stays ? row.stays : row.once)
                runAll(row, stays, error, step);
        }
    }
    return 0;
}
