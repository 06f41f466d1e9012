// Runs a scenario with one call of the provider's side failing, each in a process of its own: every
// call that the scenario reaches, of every function that it may call.
//
//   fault-probe socket|direct|mapper2|source|file [STEP [CALL]]
//
// With a step only every so manieth call. Prints how many calls of each were made to fail. Exits
// with 1 and a line when something does not hold: a client that is told nothing, a wrong frame,
// something left behind, a lock that is kept, or no next frame when the fault is over.

#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <iterator>
#include <vector>

#include "fault_scenarios.h"

namespace {

using faults::Effect;
using faults::Fault;
using faults::Road;

struct Scenario {
    const char* name;
    void (*run)(const Fault& fault, int n, Effect effect);
};

template <Road road, bool isOldMapper = false>
void runSession(const Fault& fault, int n, Effect effect) {
    faults::runSession(road, isOldMapper, fault, n, effect);
}

constexpr Scenario kScenarios[] = {
    {"socket", runSession<Road::SOCKET>},
    {"direct", runSession<Road::DIRECT>},
    {"mapper2", runSession<Road::DIRECT, true>},
    {"source", runSession<Road::SOURCE>},
    {"file", [](const Fault& fault, int n, Effect /*effect*/) { faults::runFile(fault, n); }}};

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
    {"accept4", {EMFILE}, kStays, Effect::SILENCE},
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
    {"malloc", {ENOMEM}, kOnce, Effect::END},
    {"malloc", {ENOMEM}, kStays, Effect::END},
    {"mapper", {2, 5, -1}, kOnce, Effect::REFUSAL},
    {"mapper", {5, -1}, kStays, Effect::REFUSAL},
    {"mmap", {ENOMEM}, kStays, Effect::REFUSAL},
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
pid_t start(const Scenario& scenario, const Fault& fault, Effect effect, int n) {
    fflush(stdout);
    const pid_t child = fork();
    if (child != 0) return child;
    alarm(kPatienceSeconds);
    scenario.run(fault, n, effect);
    exit(faults::wasReached() ? 0 : kUnreached);
}

int resultOf(pid_t child, Effect effect) {
    int status = -1;
    waitpid(child, &status, 0);
    if (WIFEXITED(status)) return WEXITSTATUS(status);
    if (effect == Effect::END && WTERMSIG(status) == SIGABRT) return 0;
    fprintf(stderr, "fault-probe: signal %d\n", WTERMSIG(status));
    return 1;
}

/** How many calls were made to fail. */
int runAll(const Scenario& scenario, const Fault& fault, Effect effect, int step, bool& held) {
    // They wait more than they work.
    constexpr int kAtOnce = 4;
    pid_t children[kAtOnce];
    int reached = 0;
    for (int tried = 0; held && reached == tried; tried += kAtOnce) {
        const auto callOf = [&](int i) { return 1 + (tried + i) * step; };
        for (int i = 0; i < kAtOnce; ++i)
            children[i] = start(scenario, fault, effect, callOf(i));
        for (int i = 0; i < kAtOnce; ++i) {
            const int result = resultOf(children[i], effect);
            if (result != kUnreached) ++reached;
            if (result == kUnreached || result == 0) continue;
            printf("%s: call %d of %s, with %d%s\n", scenario.name, callOf(i), fault.call,
                   fault.error, fault.stays ? " from then on" : "");
            held = false;
        }
    }
    return reached;
}

}  // namespace

void faults::fail(const char* what) {
    fprintf(stderr, "fault-probe: %s\n", what);
    _exit(1);
}

int main(int argc, char** argv) {
    const auto* const scenario = std::find_if(
        std::begin(kScenarios), std::end(kScenarios),
        [&](const Scenario& each) { return argc >= 2 && strcmp(argv[1], each.name) == 0; });
    if (scenario == std::end(kScenarios)) return 2;
    const rlimit none = {0, 0};
    setrlimit(RLIMIT_CORE, &none);
    const int step = argc >= 3 ? atoi(argv[2]) : 1;  // NOLINT(cert-err34-c)
    int tried = 0;
    bool held = true;
    for (const Row& row : kRows) {
        if (argc == 4 && strcmp(argv[3], row.call) != 0) continue;
        for (const int error : row.errors) {
            const int calls =
                runAll(*scenario, {row.call, error, row.stays}, row.effect, step, held);
            if (calls > 0) printf("%s %d: %d\n", row.call, error, calls);
            tried += calls;
        }
    }
    printf("%d faults, one at a time\n", tried);
    return held ? 0 : 1;
}
