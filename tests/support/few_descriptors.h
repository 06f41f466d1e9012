#pragma once

#include <fcntl.h>
#include <sys/resource.h>
#include <unistd.h>

#include <utility>
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
        for (rlim_t free = 0; free < spare || !isFree(mLimit); ++mLimit) {
            if (isFree(mLimit)) ++free;
        }
        for (rlim_t i = 0; i < alsoReserved; ++i) {
            mTaken.emplace_back(
                fcntl(STDERR_FILENO, F_DUPFD_CLOEXEC, static_cast<int>(mLimit + i)));
        }
        const rlimit few = {mLimit, mBefore.rlim_max};
        setrlimit(RLIMIT_NOFILE, &few);
    }
    /** The process's limit meanwhile. */
    rlim_t limit() const { return mLimit; }

    ~FewDescriptors() { setrlimit(RLIMIT_NOFILE, &mBefore); }
    FewDescriptors(const FewDescriptors&) = delete;
    FewDescriptors& operator=(const FewDescriptors&) = delete;

    /** Gives the slots above the limit back, which stays as it is. */
    void releaseReserved() { mTaken.clear(); }

private:
    static bool isFree(rlim_t fd) { return fcntl(static_cast<int>(fd), F_GETFD) < 0; }

    rlimit mBefore = {};
    rlim_t mLimit = 0;
    std::vector<host::UniqueFd> mTaken;
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
