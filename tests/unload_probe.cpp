// Loads the implementation library, uses it, and unloads it or exits, again and again and at random
// moments of the monitor's pass. A process of its own: it starts no test framework and no thread.
//
//   unload-probe LIBRARY unload|exit|fork|keep|inside|observer|track|stuck|lost [ROUNDS]
//
// Exits with 0 when every round held; else a line says what did not.

#include <dlfcn.h>
#include <pthread.h>
#include <sys/mman.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <random>
#include <string_view>
#include <thread>
#include <vector>

#include <android/log.h>

#include "FDSession.h"
#include "frame.h"
#include "host/accepted.h"
#include "host/buffer.h"
#include "host/log.h"
#include "host/mapper.h"
#include "host/threads.h"
#include "records.h"

namespace {

using namespace vendor::zoru::zoruprovider::fdstream::V1_0;                  // NOLINT
using namespace vendor::zoru::zoruprovider::fdstream::V1_0::implementation;  // NOLINT
using android::hardware::hidl_vec;
using std::chrono::milliseconds;

constexpr uint64_t kBuffers = 3;
constexpr kit::FrameSize kSize = {16, 8};

std::string_view mode;
std::atomic<pid_t> diedOn{0};
std::atomic<bool> isInCallback{false};
/** Whether the monitor's next waits begin too late for a wake-up. */
std::atomic<bool> losesWakeUps{false};
std::atomic<bool> isAboutToWait{false};

void require(bool held, const char* what) {
    if (held) return;
    fprintf(stderr, "unload-probe: %s\n", what);
    _exit(1);
}

/** Exits while the session is locked, or from the operation during which it is not. */
struct ExitingObserver : public ISceneCallback {
    void onSceneControl(SceneControl /*scene*/) override {
        std::this_thread::sleep_for(milliseconds(60));  // the monitor wants the lock
        exit(0);
    }
    void onPTZControl(SceneControl /*ptz*/) override {}
    void onTrackControl(TrackControl /*track*/) override { exit(0); }
    void onTrackingMode(TrackingMode /*mode*/) override {}
};

/** Its end shows on which thread the session went. */
struct ProbeCallback : public IFDSessionCallback {
    ~ProbeCallback() override { diedOn = gettid(); }
    Return<void> processCaptureResult(const hidl_vec<CaptureResult>&) override {
        isInCallback = true;
        if (mode == "inside") exit(0);  // on the monitor thread, in the middle of its pass
        while (mode == "stuck")
            pause();
        return {};
    }
    Return<void> notify(const hidl_vec<FDNotifyMsg>&) override { return {}; }
};

/** The library while it is loaded, and its session. */
struct Loaded {
    explicit Loaded(const char* path) : library(path), handle(dlopen(path, RTLD_NOW)) {
        require(handle != nullptr, "the library cannot be loaded");
        entry = dlsym(handle,
                      "_ZN6vendor4zoru12zoruprovider8fdstream4V1_014implementation9FDSession"
                      "11getInstanceEv");
        require(entry != nullptr, "getInstance is not exported");
        session = reinterpret_cast<sp<FDSession> (*)()>(entry)();
    }

    void configure() const {
        const auto status = session->getInterface()->configure(kit::configurationOf(kSize));
        require(host::isAccepted(status), "configure was refused");
    }

    void request(uint64_t id, const native_handle_t* buffer = nullptr) const {
        const auto status =
            session->getInterface()->processCaptureRequest(kit::requestFor(0, id, buffer));
        require(host::isAccepted(status), "a request was refused");
    }

    void answer() const {
        CaptureRequest taken = {};
        if (session->getProcessCaptureRequest(taken) == 0)
            session->sendCaptureResult(kit::resultFor(taken));
    }

    /** A configured session with requests waiting, results queued and buffers known. */
    void use() const {
        const host::Buffer buffer = kit::allocate(kSize);
        diedOn = 0;
        const auto status = session->getInterface()->setCallback(new ProbeCallback);
        require(status.isOk(), "setCallback failed");
        configure();
        for (uint64_t id = 0; id < kBuffers; ++id)
            request(id, buffer.handle());
        answer();
        answer();
    }

    /** From several threads, each with references of its own, until a moment before the end. */
    void putUnderLoad() const {
        std::vector<std::thread> threads(3);
        for (std::thread& thread : threads) {
            thread = std::thread([own = *this] {
                for (int round = 0; round < 20; ++round) {
                    own.request(0);
                    own.answer();
                    own.session->setTrackControl({});
                }
            });
        }
        for (std::thread& thread : threads)
            thread.join();
    }

    void unload() {
        session.clear();
        Dl_info where = {};
        require(dladdr(entry, &where) != 0, "the library is not mapped");
        require(dlclose(handle) == 0, "dlclose failed");
        require(dlopen(library, RTLD_NOW | RTLD_NOLOAD) == nullptr,
                "the library is still in the loader's list");
        require(host::threadCount() == 0, "a thread is left");
        require(diedOn == gettid(), "the session did not die on the unloading thread");
        // A library that is loaded again at the same address would hide a late call.
        const void* const reserved = mmap(where.dli_fbase, 1, PROT_NONE,
                                          MAP_PRIVATE | MAP_ANONYMOUS | MAP_FIXED_NOREPLACE, -1, 0);
        require(reserved == where.dli_fbase, "the library is still mapped");
    }

    const char* const library;
    void* const handle;
    void* entry = nullptr;
    sp<FDSession> session;
};

/** Somewhere in the monitor's pass; now and then long enough for it to lie in its wait. */
void waitAMoment(std::minstd_rand& random) {
    const std::chrono::microseconds moment(random() % (random() % 8 == 0 ? 3000 : 30));
    const auto end = std::chrono::steady_clock::now() + moment;
    while (std::chrono::steady_clock::now() < end) {
    }
}

/** One after the other as it is, under load, and with a reconfiguration at the end. */
void runRounds(const char* library, int rounds) {
    std::minstd_rand random(static_cast<unsigned>(getpid()));
    for (int i = 0; i < rounds; ++i) {
        const host::MapperCounters before = host::mapperCounters();
        Loaded loaded(library);
        loaded.use();
        if (i % 3 == 1) loaded.putUnderLoad();
        if (i % 3 == 2) loaded.configure();
        waitAMoment(random);
        loaded.unload();
        const host::MapperCounters after = host::mapperCounters();
        const int64_t left = (after.imports - before.imports) - (after.frees - before.frees);
        // What is still registered is not handed back; a last reconfiguration hands it back.
        require(left == (i % 3 == 2 ? 0 : int64_t{kBuffers}),
                "other handles are left imported than those of the registry");
    }
}

/** Leaves a session for the end of the process: main's return, or a child's exit(). */
void leaveSession(const char* library) {
    if (mode == "exit" || mode == "track" || mode == "lost") {
        // Runs after all of the library's own.
        atexit([] { require(host::threadCount() == 0, "the monitor was not ended"); });
    }
    static Loaded* const loaded = new Loaded(library);
    static ExitingObserver observer;
    loaded->use();
    losesWakeUps = mode == "lost";
    if (mode == "lost") loaded->answer();  // so that the thread goes on to another wait
    if (mode == "keep") return;
    if (mode == "inside") pause();
    while ((mode == "lost" && !isAboutToWait) || (mode == "stuck" && !isInCallback))
        std::this_thread::yield();
    FDSession* const session = loaded->session.get();
    loaded->session.clear();
    if (mode == "observer" || mode == "track") session->setSceneCallback(&observer);
    if (mode == "track") session->setTrackControl({});
    if (mode == "observer") session->setSceneControl({});
    if (mode != "fork") return;
    const pid_t child = fork();
    if (child == 0) exit(0);
    int status = -1;
    require(waitpid(child, &status, 0) == child && status == 0, "a forked child did not exit");
}

}  // namespace

/** The wait of the session's thread: a program's symbol wins over the library's. */
extern "C" int pthread_cond_timedwait(pthread_cond_t* __restrict condition,
                                      pthread_mutex_t* __restrict mutex,
                                      const timespec* __restrict time) {
    timespec deadline = *time;
    if (losesWakeUps) {
        isAboutToWait = true;
        std::this_thread::sleep_for(milliseconds(200));
    }
    deadline.tv_sec += 3600;  // as if the clock had been set back: only a wake-up ends the wait
    return pthread_cond_clockwait(condition, mutex, CLOCK_REALTIME, &deadline);
}

int main(int argc, char** argv) {
    if (argc < 3) return 2;
    host::setStderrLogPriority(ANDROID_LOG_WARN);
    mode = argv[2];
    if (mode == "unload") {
        runRounds(argv[1], atoi(argv[argc - 1]));  // NOLINT(cert-err34-c)
    } else {
        leaveSession(argv[1]);
    }
    return 0;
}
