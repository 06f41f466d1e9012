#include "slot_reserve.h"

#include <sys/resource.h>

#include <algorithm>
#include <atomic>
#include <climits>
#include <mutex>

#include "host/limits.h"

namespace host::detail {

namespace {

constexpr rlim_t kFewest = 3 * kReservedFds;  // to serve one client at all

std::mutex sMutex;
std::atomic<int> sFirstReserved{INT_MAX};  // changes under sMutex
// Guarded by sMutex.
int sServers = 0;
rlim_t sLowered = 0;

rlim_t slots() {
    rlimit limit = {};
    getrlimit(RLIMIT_NOFILE, &limit);
    return limit.rlim_cur;
}

/** Moves the limit from one value to another; not when somebody else has moved it meanwhile. */
void moveLimit(rlim_t from, rlim_t to) {
    rlimit limit = {};
    getrlimit(RLIMIT_NOFILE, &limit);
    if (limit.rlim_cur != from) return;
    limit.rlim_cur = to;
    setrlimit(RLIMIT_NOFILE, &limit);
}

}  // namespace

SlotReserve::SlotReserve() {
    const std::lock_guard<std::mutex> lock(sMutex);
    if (sServers == 0) {
        const rlim_t full = slots();
        if (full < kConnectionFds + kFewest) return;
        sLowered = full - kConnectionFds;
        moveLimit(full, sLowered);
        sFirstReserved = static_cast<int>(std::min<rlim_t>(sLowered - kReservedFds, INT_MAX));
    }
    ++sServers;
    mHeld = true;
}

SlotReserve::~SlotReserve() {
    if (!mHeld) return;
    const std::lock_guard<std::mutex> lock(sMutex);
    if (--sServers > 0) return;
    sFirstReserved = INT_MAX;
    moveLimit(sLowered, sLowered + kConnectionFds);
}

SlotReserve::Opened::Opened() {
    sMutex.lock();
    mLimit = slots();
    moveLimit(mLimit, mLimit + kConnectionFds);
}

SlotReserve::Opened::~Opened() {
    moveLimit(mLimit + kConnectionFds, mLimit);
    sMutex.unlock();
}

bool SlotReserve::isReserved(int fd) {
    return fd >= sFirstReserved;
}

}  // namespace host::detail
