#pragma once

#include <fcntl.h>
#include <sys/resource.h>
#include <unistd.h>

#include <utility>
#include <vector>

#include "host/unique_fd.h"

namespace testing_support {

/** Soft and hard, of the process's descriptor slots. */
inline rlimit slotLimits() {
    rlimit now = {};
    getrlimit(RLIMIT_NOFILE, &now);
    return now;
}

inline void limitSlotsTo(rlim_t slots) {
    const rlimit few = {slots, slotLimits().rlim_max};
    setrlimit(RLIMIT_NOFILE, &few);
}

/** Leaves the process so many slots, from the lowest that is free, for the scope of this object. */
struct FewDescriptors {
    explicit FewDescriptors(int spare)
        : limit(static_cast<rlim_t>(host::UniqueFd(dup(STDERR_FILENO)).get() + spare)) {
        limitSlotsTo(limit);
    }
    ~FewDescriptors() { limitSlotsTo(before); }

    const rlim_t before = slotLimits().rlim_cur;
    const rlim_t limit;
};

/** Takes every number below this one. */
inline std::vector<host::UniqueFd> takenUpTo(size_t number) {
    std::vector<host::UniqueFd> taken;
    for (;;) {
        host::UniqueFd fd(fcntl(STDERR_FILENO, F_DUPFD_CLOEXEC, 0));
        if (static_cast<size_t>(fd.get()) >= number) return taken;
        taken.push_back(std::move(fd));
    }
}

}  // namespace testing_support
