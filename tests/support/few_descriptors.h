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
class FewDescriptors {
public:
    explicit FewDescriptors(int spare)
        : mLimit(static_cast<rlim_t>(host::UniqueFd(dup(STDERR_FILENO)).get() + spare)) {
        limitSlotsTo(mLimit);
    }
    ~FewDescriptors() { limitSlotsTo(mBefore); }

    /** The process's limit meanwhile. */
    rlim_t limit() const { return mLimit; }

private:
    const rlim_t mBefore = slotLimits().rlim_cur;
    const rlim_t mLimit;
};

/** Takes every number below this one, for the scope of this object. */
class TakenUpTo {
public:
    explicit TakenUpTo(size_t number) {
        for (;;) {
            host::UniqueFd fd(fcntl(STDERR_FILENO, F_DUPFD_CLOEXEC, 0));
            if (static_cast<size_t>(fd.get()) >= number) return;
            mTaken.push_back(std::move(fd));
        }
    }

private:
    std::vector<host::UniqueFd> mTaken;
};

}  // namespace testing_support
