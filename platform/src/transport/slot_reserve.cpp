#include "slot_reserve.h"

#include <fcntl.h>
#include <sys/resource.h>

#include <atomic>
#include <mutex>

#include "host/limits.h"
#include "host/unique_fd.h"

namespace host::detail {

namespace {

constexpr rlim_t kFewest = 3 * kReservedFds;  // to serve one client at all

std::mutex sMutex;
std::atomic<int> sServers{0};  // changes under sMutex
// Guarded by sMutex.
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
    }
    ++sServers;
    mHeld = true;
}

SlotReserve::~SlotReserve() {
    if (!mHeld) return;
    const std::lock_guard<std::mutex> lock(sMutex);
    if (--sServers == 0) moveLimit(sLowered, sLowered + kConnectionFds);
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

bool SlotReserve::isUntouched() {
    if (sServers == 0) return true;
    // Numbers are given out from the lowest, so a free first number of the reserve nearly always
    // tells that all of it is free; only when it is taken are the slots counted.
    const rlim_t limit = slots();
    const rlim_t first = limit - kReservedFds;
    const UniqueFd probe(fcntl(STDERR_FILENO, F_DUPFD_CLOEXEC, static_cast<int>(first)));
    if (static_cast<rlim_t>(probe.get()) == first) return true;
    rlim_t free = 0;
    for (rlim_t fd = 0; fd < limit && free < kReservedFds; ++fd) {
        if (fcntl(static_cast<int>(fd), F_GETFD) < 0) ++free;
    }
    return free + (probe.isValid() ? 1 : 0) >= kReservedFds;
}

}  // namespace host::detail
