#include "slot_reserve.h"

#include <android-base/thread_annotations.h>
#include <sys/resource.h>

#include <algorithm>
#include <atomic>
#include <climits>
#include <mutex>

#include "host/descriptor_bound.h"
#include "host/limits.h"

namespace host::detail {

namespace {

constexpr rlim_t kFewest = 3 * kReservedFds;  // to serve one client at all
constexpr rlim_t kUsual = 1024;               // enough for the process itself

std::mutex sMutex;
std::atomic<bool> sIsTight{false};  // changes under sMutex
int sServers GUARDED_BY(sMutex) = 0;
rlim_t sBefore GUARDED_BY(sMutex) = 0;
rlim_t sWhileServing GUARDED_BY(sMutex) = 0;

rlimit limits() {
    rlimit limit = {};
    getrlimit(RLIMIT_NOFILE, &limit);
    return limit;
}

/** Moves the limit from one value to another, unless somebody else has changed it meanwhile. */
void moveLimit(rlim_t from, rlim_t to) {
    rlimit limit = limits();
    if (limit.rlim_cur != from) return;
    limit.rlim_cur = to;
    setrlimit(RLIMIT_NOFILE, &limit);
}

}  // namespace

SlotReserve::SlotReserve() {
    const std::lock_guard<std::mutex> lock(sMutex);
    if (sServers == 0) {
        const auto [before, most] = limits();
        if (before < kConnectionFds + kFewest) return;
        const rlim_t roomy = std::min(most, before + kArrivalFds);
        sIsTight = roomy < kArrivalFds + std::min(before, kUsual);
        const rlim_t all = sIsTight ? before : roomy;
        const rlim_t clients = sIsTight ? before : roomy - kArrivalFds;
        sBefore = before;
        sWhileServing = all - kConnectionFds;
        moveLimit(before, sWhileServing);
        boundDescriptors(
            static_cast<int>(std::min<rlim_t>(clients - kConnectionFds - kReservedFds, INT_MAX)));
    }
    ++sServers;
    mHeld = true;
}

SlotReserve::~SlotReserve() {
    if (!mHeld) return;
    const std::lock_guard<std::mutex> lock(sMutex);
    if (--sServers > 0) return;
    boundDescriptors(INT_MAX);
    sIsTight = false;
    moveLimit(sWhileServing, sBefore);
}

SlotReserve::Opened::Opened() {
    sMutex.lock();
    mLimit = limits().rlim_cur;
    moveLimit(mLimit, mLimit + kConnectionFds);
}

SlotReserve::Opened::~Opened() {
    moveLimit(mLimit + kConnectionFds, mLimit);
    sMutex.unlock();
}

bool SlotReserve::isTight() {
    return sIsTight;
}

}  // namespace host::detail
