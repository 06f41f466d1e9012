#pragma once

#include <fcntl.h>
#include <sys/resource.h>
#include <unistd.h>

#include <utility>
#include <vector>

#include "host/unique_fd.h"

namespace testing_support {

/**
 * Leaves the process `spare` descriptor slots, for the scope of this object. With `beyond` its
 * limit is so much lower, and the slots between stay taken.
 */
class FewDescriptors {
public:
    explicit FewDescriptors(rlim_t spare, rlim_t beyond = 0) {
        getrlimit(RLIMIT_NOFILE, &mBefore);
        for (; spare > 0 || !isFree(mLimit); ++mLimit) {
            if (isFree(mLimit)) --spare;
        }
        mLimit -= beyond;
        const rlimit few = {mLimit, mBefore.rlim_max};
        setrlimit(RLIMIT_NOFILE, &few);
    }
    ~FewDescriptors() { setrlimit(RLIMIT_NOFILE, &mBefore); }
    FewDescriptors(const FewDescriptors&) = delete;
    FewDescriptors& operator=(const FewDescriptors&) = delete;

    /** The process's limit meanwhile. */
    rlim_t limit() const { return mLimit; }

private:
    static bool isFree(rlim_t fd) { return fcntl(static_cast<int>(fd), F_GETFD) < 0; }

    rlimit mBefore = {};
    rlim_t mLimit = 0;
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
