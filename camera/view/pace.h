#pragma once

#include <cstdint>
#include <optional>

namespace camera {

/**
 * Says when each frame of a source is due, by the frames' own time stamps or at a fixed rate.
 * Nanoseconds of one clock throughout. For one thread.
 */
class Pace {
public:
    /** With a period each frame is due that much after the one before, whatever its stamp. */
    explicit Pace(std::optional<int64_t> fixedPeriod = std::nullopt) : mFixedPeriod(fixedPeriod) {}

    /**
     * When the next frame is due, the first one now. `period` is the source's own: it stands in
     * where the stamps go back, stand still or leap. A source that has fallen behind goes on from
     * now and does not catch up.
     */
    int64_t dueOf(int64_t stamp, int64_t period, int64_t now);
    /** The next frame follows the last one by a period: the source begins again. */
    void beginAgain() { mLastStamp.reset(); }

private:
    int64_t after(int64_t stamp, int64_t period) const;

    const std::optional<int64_t> mFixedPeriod;
    std::optional<int64_t> mLastDue;
    std::optional<int64_t> mLastStamp;
};

}  // namespace camera
