// Loads the implementation library, uses it, and unloads it or exits, again and again and at random
// moments of the monitor's pass. A process of its own: it starts no test framework and no thread.
//
//   unload-probe LIBRARY
//   unload|load|reconfigure|exit|fork|keep|inside|observer|track|stuck|lost ROUNDS
//
// Exits with 0 when every round held; else a line says what did not.

#include <dlfcn.h>
#include <pthread.h>
#include <sys/mman.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <random>
#include <string>
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

constexpr uint64_t kBuffers = 3;
constexpr kit::FrameSize kSize = {16, 8};

std::atomic<pid_t> diedOn{0};

/** Whether the monitor's next waits begin too late for a wake-up. */
std::atomic<bool> losesWakeUps{false};
std::atomic<bool> isAboutToWait{false};

/** Exits while the session is locked, or from the operation during which it is not. */
struct ExitingObserver : public ISceneCallback {
    void onSceneControl(SceneControl /*scene*/) override {
        std::this_thread::sleep_for(std::chrono::milliseconds(60));  // the monitor wants the lock
        exit(0);
    }
    void onPTZControl(SceneControl /*ptz*/) override {}
    void onTrackControl(TrackControl /*track*/) override { exit(0); }
    void onTrackingMode(TrackingMode /*mode*/) override {}
};

/** Its end shows when, and on which thread, the session went. */
struct ProbeCallback : public IFDSessionCallback {
    explicit ProbeCallback(std::string mode) : mMode(std::move(mode)) {}
    ~ProbeCallback() override { diedOn = gettid(); }
    Return<void> processCaptureResult(const hidl_vec<CaptureResult>&) override {
        isInCallback = true;
        if (mMode == "inside") exit(0);  // on the monitor thread, in the middle of its pass
        while (mMode == "stuck")
            pause();
        return {};
    }
    Return<void> notify(const hidl_vec<FDNotifyMsg>&) override { return {}; }

    static std::atomic<bool> isInCallback;

private:
    const std::string mMode;
};
std::atomic<bool> ProbeCallback::isInCallback{false};

[[noreturn]] void fail(const std::string& what) {
    fprintf(stderr, "unload-probe: %s\n", what.c_str());
    _exit(1);
}

void require(bool held, const char* what) {
    if (!held) fail(what);
}

struct Range {
    uintptr_t begin = 0;
    uintptr_t end = 0;
};

/** Where the library's file is mapped; empty when it is not. */
Range findMapped(const std::string& library) {
    Range range;
    std::ifstream maps("/proc/self/maps");
    for (std::string line; std::getline(maps, line);) {
        if (line.find(library) == std::string::npos) continue;
        char* rest = nullptr;
        const uintptr_t begin = strtoul(line.c_str(), &rest, 16);
        if (range.end == 0) range.begin = begin;
        range.end = strtoul(rest + 1, nullptr, 16);
    }
    return range;
}

class Round {
public:
    explicit Round(const std::string& library)
        : mLibrary(library), mHandle(dlopen(library.c_str(), RTLD_NOW | RTLD_LOCAL)) {
        if (mHandle == nullptr) fail(dlerror());
        void* const entry =
            dlsym(mHandle,
                  "_ZN6vendor4zoru12zoruprovider8fdstream4V1_014implementation9FDSession"
                  "11getInstanceEv");
        require(entry != nullptr, "getInstance is not exported");
        mSession = reinterpret_cast<sp<FDSession> (*)()>(entry)();
    }

    /** A configured session with requests waiting, results queued and buffers known. */
    void use(const std::vector<host::Buffer>& buffers, const std::string& mode) {
        diedOn = 0;
        const sp<IFDSession> client = mSession->getInterface();
        require(client->setCallback(new ProbeCallback(mode)).isOk(), "setCallback failed");
        configure();
        for (uint64_t id = 0; id < buffers.size(); ++id) {
            const auto status =
                client->processCaptureRequest(kit::requestFor(0, id, buffers[id].handle()));
            require(host::isAccepted(status), "a request was refused");
        }
        for (int i = 0; i < 2; ++i) {
            CaptureRequest taken = {};
            require(mSession->getProcessCaptureRequest(taken) == 0, "no request was waiting");
            mSession->sendCaptureResult(kit::resultFor(taken));
        }
    }

    void configure() {
        const auto status = mSession->getInterface()->configure(kit::configurationOf(kSize));
        require(host::isAccepted(status), "configure was refused");
    }

    /** From several threads, each with references of its own, until a moment before the end. */
    void putUnderLoad() {
        std::vector<std::thread> threads(3);
        for (std::thread& thread : threads) {
            thread = std::thread([session = mSession, client = mSession->getInterface()] {
                for (int round = 0; round < 20; ++round) {
                    require(client->processCaptureRequest(kit::requestFor(0, 0)).isOk(),
                            "a request did not arrive");
                    CaptureRequest taken = {};
                    if (session->getProcessCaptureRequest(taken) == 0)
                        session->sendCaptureResult(kit::resultFor(taken));
                    session->setTrackControl({});
                }
            });
        }
        for (std::thread& thread : threads)
            thread.join();
    }

    void letGo() { mSession.clear(); }

    void exitInsideObserver(const std::string& mode) {
        static ExitingObserver observer;
        FDSession* const session = mSession.get();
        session->setSceneCallback(&observer);
        letGo();
        mode == "track" ? session->setTrackControl({}) : session->setSceneControl({});
    }

    void unload() {
        mSession.clear();
        const Range range = findMapped(mLibrary);
        require(range.begin < range.end, "the library is not mapped");
        require(dlclose(mHandle) == 0, "dlclose failed");
        require(dlopen(mLibrary.c_str(), RTLD_NOW | RTLD_NOLOAD) == nullptr,
                "the library is still in the loader's list");
        require(findMapped(mLibrary).end == 0, "the library is still mapped");
        require(host::threadCount() == 0, "a thread is left");
        require(diedOn == gettid(), "the session did not die on the unloading thread");
        // A library that is loaded again at the same address would hide a late call.
        void* const wanted = reinterpret_cast<void*>(range.begin);  // NOLINT
        const void* const reserved = mmap(wanted, range.end - range.begin, PROT_NONE,
                                          MAP_PRIVATE | MAP_ANONYMOUS | MAP_FIXED_NOREPLACE, -1, 0);
        require(reserved == wanted, "the library's range could not be reserved");
    }

private:
    const std::string mLibrary;
    void* const mHandle;
    sp<FDSession> mSession;
};

/** Somewhere in the monitor's pass; now and then long enough for it to lie in its wait. */
void waitAMoment(std::minstd_rand& random) {
    const unsigned kind = static_cast<unsigned>(random() % 8);
    if (kind == 0) {
        std::this_thread::sleep_for(std::chrono::microseconds(random() % 3000));
    } else {
        for (volatile unsigned spin = static_cast<unsigned>(random() % (2000 * kind)); spin > 0;) {
            spin = spin - 1;
        }
    }
}

std::vector<host::Buffer> allocateBuffers() {
    std::vector<host::Buffer> buffers;
    for (uint64_t id = 0; id < kBuffers; ++id)
        buffers.push_back(kit::allocate(kSize));
    return buffers;
}

void runRounds(const std::string& library, const std::string& mode, int rounds) {
    std::minstd_rand random(static_cast<unsigned>(getpid()));
    const std::vector<host::Buffer> buffers = allocateBuffers();
    for (int i = 0; i < rounds; ++i) {
        const host::MapperCounters before = host::mapperCounters();
        Round round(library);
        round.use(buffers, mode);
        if (mode == "load") round.putUnderLoad();
        if (mode == "reconfigure") round.configure();
        waitAMoment(random);
        round.unload();
        const host::MapperCounters after = host::mapperCounters();
        const int64_t left = (after.imports - before.imports) - (after.frees - before.frees);
        // What is still registered is not handed back; a last reconfiguration hands it back.
        require(left == (mode == "reconfigure" ? 0 : int64_t{kBuffers}),
                "other handles are left imported than those of the registry");
    }
}

std::atomic<Round*> aliveAtExit{nullptr};

/** Leaves a session for the end of the process: main's return, or a child's exit(). */
void leaveSession(const std::string& library, const std::string& mode) {
    if (mode == "exit" || mode == "track" || mode == "lost") {
        // Runs after all of the library's own.
        atexit([] { require(host::threadCount() == 0, "the monitor was not ended"); });
    }
    losesWakeUps = mode == "lost";  // before the thread begins a first wait, which would not end
    aliveAtExit = new Round(library);
    aliveAtExit.load()->use(allocateBuffers(), mode);
    if (mode == "inside") pause();
    if (mode == "observer" || mode == "track") aliveAtExit.load()->exitInsideObserver(mode);
    if (mode == "keep") return;
    while ((mode == "lost" && !isAboutToWait) || (mode == "stuck" && !ProbeCallback::isInCallback))
        std::this_thread::yield();
    aliveAtExit.load()->letGo();
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
        std::this_thread::sleep_for(std::chrono::milliseconds(200));
    }
    deadline.tv_sec += 3600;  // as if the clock had been set back: only a wake-up ends the wait
    return pthread_cond_clockwait(condition, mutex, CLOCK_REALTIME, &deadline);
}

int main(int argc, char** argv) {
    if (argc != 4) return 2;
    host::setStderrLogPriority(ANDROID_LOG_WARN);
    const std::string mode = argv[2];
    if (mode == "unload" || mode == "load" || mode == "reconfigure") {
        runRounds(argv[1], mode, atoi(argv[3]));  // NOLINT(cert-err34-c)
    } else {
        leaveSession(argv[1], mode);
    }
    return 0;
}
