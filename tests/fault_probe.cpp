// Runs a scenario with one call of the provider's side failing, each in a process of its own: every
// call that the scenario reaches, of every function that it may call.
//
//   fault-probe socket|direct|mapper2|file [STEP [CALL]]
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
#include <functional>
#include <map>
#include <string>
#include <vector>

#include "fault_scenarios.h"

namespace {

using faults::Effect;
using faults::Fault;
using faults::Road;

using Scenario = std::function<void(Effect)>;

Scenario on(Road road) {
    return [road](Effect effect) { faults::runSession(road, effect); };
}

const std::map<std::string, Scenario> kScenarios = {{"socket", on(Road::SOCKET)},
                                                    {"direct", on(Road::DIRECT)},
                                                    {"mapper2", on(Road::OLD_MAPPER)},
                                                    {"file", [](Effect) { faults::runFile(); }}};

constexpr const char* kServed = "socket";
constexpr const char* kSession = "socket direct mapper2";
constexpr const char* kAll = "socket direct mapper2 file";

/** Errors of a call, each of them by itself. */
struct Row {
    const char* call;
    std::vector<int> errors;
    bool stays;
    Effect effect;
    std::string reachedBy;
};

constexpr bool kOnce = false;
constexpr bool kStays = true;

const Row kRows[] = {
    {"accept4", {EMFILE, ECONNABORTED, EINTR, ENOMEM}, kOnce, Effect::NONE, kServed},
    {"accept4",
     {EMFILE, ENFILE, ENOBUFS, ENOMEM, EPERM, EPROTO, ENETDOWN},
     kStays,
     Effect::SILENCE,
     kServed},
    {"bind", {EADDRINUSE}, kOnce, Effect::LOSS, kServed},
    {"chmod", {EPERM}, kOnce, Effect::LOSS, kServed},
    {"eventfd", {EMFILE}, kOnce, Effect::LOSS, kServed},
    {"fcntl", {EMFILE}, kOnce, Effect::REFUSAL, kAll},
    {"fcntl", {EMFILE}, kStays, Effect::REFUSAL, kAll},
    {"fflush", {ENOSPC}, kOnce, Effect::REFUSAL, "file"},
    {"flock", {EWOULDBLOCK, EINTR}, kOnce, Effect::NONE, kServed},
    {"fopen", {EMFILE}, kOnce, Effect::REFUSAL, kAll},
    {"fread", {EIO}, kStays, Effect::REFUSAL, kAll},
    {"fseek", {ESPIPE}, kOnce, Effect::REFUSAL, kSession},
    {"fwrite", {ENOSPC}, kOnce, Effect::REFUSAL, "file"},
    {"getsockopt", {ENOBUFS}, kOnce, Effect::LOSS, kServed},
    {"gettimeofday", {3600}, kStays, Effect::REFUSAL, kSession},
    {"gettimeofday", {-3600}, kStays, Effect::NONE, kSession},
    {"listen", {EADDRINUSE}, kOnce, Effect::LOSS, kServed},
#ifdef FAULTS_OF_MEMORY
    {"malloc", {ENOMEM}, kOnce, Effect::END, kAll},
    {"malloc", {ENOMEM}, kStays, Effect::END, kAll},
    {"mmap", {ENOMEM}, kStays, Effect::REFUSAL, kAll},
#endif
    {"mapper", {2, 5, -1}, kOnce, Effect::REFUSAL, kSession},
    {"mapper", {5, -1}, kStays, Effect::REFUSAL, kSession},
    {"poll", {EINTR}, kOnce, Effect::NONE, kServed},
    {"poll", {ENOMEM}, kOnce, Effect::LOSS, kServed},
    {"pthread_cond_timedwait", {EINTR, ETIMEDOUT, 3600}, kOnce, Effect::NONE, kSession},
    {"pthread_create", {EAGAIN}, kOnce, Effect::LOSS, kServed},
    {"pthread_create", {EAGAIN}, kStays, Effect::LOSS, kServed},
    {"readlink", {EACCES}, kOnce, Effect::REFUSAL, kServed},
    {"recvmsg", {EINTR, EAGAIN}, kOnce, Effect::NONE, kServed},
    {"recvmsg", {ENOMEM, ECONNRESET}, kOnce, Effect::LOSS, kServed},
    {"sendmsg", {EINTR, EAGAIN}, kOnce, Effect::NONE, kServed},
    {"sendmsg", {ENOBUFS, EPIPE}, kOnce, Effect::LOSS, kServed},
    {"sendmsg", {ETOOMANYREFS}, kStays, Effect::LOSS, kServed},
    {"setsockopt", {ENOBUFS}, kOnce, Effect::NONE, kServed},
    {"socket", {EMFILE}, kOnce, Effect::LOSS, kServed},
    {"statx", {ENOMEM}, kOnce, Effect::REFUSAL, kAll},
};

constexpr int kUnreached = 10;
constexpr unsigned kPatienceSeconds = 30;

/** In a process of its own, without threads of the one that it comes from. */
pid_t start(const Scenario& run, Effect effect, const Fault& fault) {
    fflush(stdout);
    const pid_t child = fork();
    if (child != 0) return child;
    alarm(kPatienceSeconds);
    faults::choose(fault);
    run(effect);
    exit(faults::wasReached() ? 0 : kUnreached);
}

int endOf(pid_t child, Effect effect) {
    int status = -1;
    waitpid(child, &status, 0);
    if (WIFEXITED(status)) return WEXITSTATUS(status);
    return effect == Effect::END && WTERMSIG(status) == SIGABRT ? 0 : -WTERMSIG(status);
}

/** How many calls were made to fail. Ends the program when something does not hold. */
int runAll(const Scenario& scenario, const Row& row, int error, int step) {
    constexpr int kAtOnce = 4;  // they wait more than they work
    pid_t children[kAtOnce];
    int reached = 0;
    bool hasHeld = true;
    for (int tried = 0; reached == tried; tried += kAtOnce) {
        const auto callOf = [&](int i) { return 1 + (tried + i) * step; };
        for (int i = 0; i < kAtOnce; ++i)
            children[i] = start(scenario, row.effect, {row.call, error, row.stays, callOf(i)});
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
    const auto scenario = kScenarios.find(argc >= 2 ? argv[1] : "");
    if (scenario == kScenarios.end()) return 2;
    const rlimit none = {0, 0};
    setrlimit(RLIMIT_CORE, &none);
    const int step = argc >= 3 ? atoi(argv[2]) : 1;  // NOLINT(cert-err34-c)
    int tried = 0;
    for (const Row& row : kRows) {
        if (argc == 4 && strcmp(argv[3], row.call) != 0) continue;
        for (const int error : row.errors) {
            const int calls = runAll(scenario->second, row, error, step);
            if (calls > 0) printf("%s %d: %d\n", row.call, error, calls);
            if (calls == 0 && row.reachedBy.find(scenario->first) != std::string::npos)
                faults::fail(row.call + std::string(" is not called any more"));
            tried += calls;
        }
    }
    printf("%d faults, one at a time\n", tried);
    return 0;
}
