#pragma once

#include <fcntl.h>
#include <sys/resource.h>
#include <unistd.h>

#include <vector>

#include "host/unique_fd.h"

namespace testing_support {

/**
 * Leaves the process `spare` descriptor slots for the scope of this object. With `alsoReserved` so
 * many slots above its limit are taken, so that raising the limit by those finds none either.
 */
class FewDescriptors {
public:
    explicit FewDescriptors(rlim_t spare, rlim_t alsoReserved = 0) {
        getrlimit(RLIMIT_NOFILE, &mBefore);
        rlim_t limit = 0;
        for (rlim_t free = 0; free < spare || !isFree(limit); ++limit) {
            if (isFree(limit)) ++free;
        }
        for (rlim_t i = 0; i < alsoReserved; ++i) {
            mTaken.emplace_back(fcntl(STDERR_FILENO, F_DUPFD_CLOEXEC, static_cast<int>(limit + i)));
        }
        const rlimit few = {limit, mBefore.rlim_max};
        setrlimit(RLIMIT_NOFILE, &few);
    }
    ~FewDescriptors() { setrlimit(RLIMIT_NOFILE, &mBefore); }
    FewDescriptors(const FewDescriptors&) = delete;
    FewDescriptors& operator=(const FewDescriptors&) = delete;

    /** Gives the slots above the limit back, which stays as it is. */
    void releaseReserved() { mTaken.clear(); }

private:
    static bool isFree(rlim_t fd) { return fcntl(static_cast<int>(fd), F_GETFD) < 0; }

    rlimit mBefore = {};
    std::vector<host::UniqueFd> mTaken;
};

}  // namespace testing_support
