// Loads the implementation library, uses it, and unloads it, again and again and at random moments
// of the monitor's pass. A program of its own, because that of the tests has the same objects
// linked in.
//
//   unload-probe LIBRARY ROUNDS
//
// Exits with 0 when every round held; else a line says what did not.

#include <android/log.h>
#include <dlfcn.h>
#include <sched.h>
#include <unistd.h>

#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <future>
#include <vector>

#include "FDSession.h"
#include "frame.h"
#include "host/accepted.h"
#include "host/buffer.h"
#include "host/log.h"
#include "host/threads.h"
#include "records.h"

namespace {

using namespace vendor::zoru::zoruprovider::fdstream::V1_0;                  // NOLINT
using namespace vendor::zoru::zoruprovider::fdstream::V1_0::implementation;  // NOLINT
using android::hardware::hidl_vec;

void require(bool held, const char* what) {
    if (held) return;
    fprintf(stderr, "unload-probe: %s\n", what);
    _exit(1);
}

/** A client that takes its time, so that the library goes before, in and after its calls. */
struct Callback : public IFDSessionCallback {
    Callback() { ++alive; }
    ~Callback() override { --alive; }
    Return<void> processCaptureResult(const hidl_vec<CaptureResult>& /*results*/) override {
        for (int turns = 0; turns < 10; ++turns)
            sched_yield();
        return {};
    }
    Return<void> notify(const hidl_vec<FDNotifyMsg>& /*msgs*/) override { return {}; }

    inline static std::atomic<int> alive{0};
};

/** From several threads, each with references of its own, until a moment before the end; leaves
 * requests waiting, results on their way and buffers known. */
void use(const sp<FDSession>& session) {
    constexpr kit::FrameSize kSize = {16, 8};
    const host::Buffer buffer = kit::allocate(kSize);
    const sp<IFDSession> client = session->getInterface();
    require(host::isAccepted(client->configure(kit::configurationOf(kSize))) &&
                host::isAccepted(client->setCallback(new Callback)),
            "configure failed");
    std::vector<std::future<void>> ends(3);
    for (auto& end : ends) {
        end = std::async(std::launch::async, [session, client, &buffer] {
            for (uint64_t id = 0; id < 8; ++id) {
                CaptureRequest request = kit::requestFor(0, id % 3, buffer.handle());
                require(host::isAccepted(client->processCaptureRequest(request)), "refused");
                if (id % 2 == 0 && session->getProcessCaptureRequest(request) == 0)
                    session->sendCaptureResult(kit::resultFor(request));
            }
        });
    }
}

void loadUseAndUnload(const char* library) {
    void* const handle = dlopen(library, RTLD_NOW);
    void* const entry = dlsym(handle,
                              "_ZN6vendor4zoru12zoruprovider8fdstream4V1_014implementation"
                              "9FDSession11getInstanceEv");
    require(entry != nullptr, "the library cannot be loaded, or getInstance is not exported");
    sp<FDSession> session = reinterpret_cast<sp<FDSession> (*)()>(entry)();
    const android::wp<FDSession> weak(session);
    use(session);
    session.clear();
    // Somewhere in the monitor's pass; now and then long enough for it to lie in its wait.
    for (auto turns = random() % (random() % 8 == 0 ? 3000 : 30); turns > 0; --turns)
        sched_yield();
    require(weak.promote() != nullptr, "the session went before the library");
    require(dlclose(handle) == 0, "dlclose failed");
    require(host::threadCount() == 0, "a thread is left");
    require(weak.promote() == nullptr && Callback::alive == 0, "something outlived the library");
    require(dlopen(library, RTLD_NOW | RTLD_NOLOAD) == nullptr, "the library is still mapped");
}

}  // namespace

int main(int /*argc*/, char** argv) {
    host::setStderrLogPriority(ANDROID_LOG_WARN);
    for (int round = atoi(argv[2]); round > 0; --round)  // NOLINT(cert-err34-c)
        loadUseAndUnload(argv[1]);
    return 0;
}
