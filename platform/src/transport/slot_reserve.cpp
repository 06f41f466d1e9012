#include "slot_reserve.h"

#include <fcntl.h>
#include <sys/resource.h>

#include <mutex>

#include "host/limits.h"
#include "host/unique_fd.h"

namespace host::detail {

namespace {

std::mutex sMutex;
int sServers = 0;  // guarded by sMutex

rlim_t slots() {
    rlimit limit = {};
    getrlimit(RLIMIT_NOFILE, &limit);
    return limit.rlim_cur;
}

void moveLimit(bool open) {
    rlimit limit = {};
    getrlimit(RLIMIT_NOFILE, &limit);
    if (limit.rlim_cur == RLIM_INFINITY) return;
    limit.rlim_cur = open ? limit.rlim_cur + kReservedFds : limit.rlim_cur - kReservedFds;
    setrlimit(RLIMIT_NOFILE, &limit);
}

}  // namespace

SlotReserve::SlotReserve() {
    const std::lock_guard<std::mutex> lock(sMutex);
    if (sServers++ == 0) moveLimit(false);
}

SlotReserve::~SlotReserve() {
    const std::lock_guard<std::mutex> lock(sMutex);
    if (--sServers == 0) moveLimit(true);
}

SlotReserve::Opened::Opened() {
    sMutex.lock();
    moveLimit(true);
}

SlotReserve::Opened::~Opened() {
    moveLimit(false);
    sMutex.unlock();
}

bool SlotReserve::isUntouched() {
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
