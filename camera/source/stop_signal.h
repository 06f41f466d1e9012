#pragma once

#include <chrono>

#include "host/unique_fd.h"

namespace camera {

/** Ends what a thread waits for, for good. Any thread. */
class StopSignal {
public:
    using Clock = std::chrono::steady_clock;

    enum class Woken { STOPPED, READY, LATE };

    StopSignal();

    void raise() const;
    bool isRaised() const;
    /** Until then. False when it was raised before. */
    bool sleepUntil(Clock::time_point when) const;
    /** Until the descriptor can be read, or has come to its end. */
    Woken waitToRead(int fd, Clock::time_point deadline) const;

private:
    Woken wait(int fd, Clock::time_point deadline) const;

    const host::UniqueFd mEvent;
};

}  // namespace camera
