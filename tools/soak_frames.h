#pragma once

#include <cstdint>
#include <vector>

#include "frame.h"

namespace tools {

constexpr uint32_t kSoakFrames = 4;

/**
 * What a soak's provider fills a buffer of this size with for the request of this number. The bytes
 * of a smaller size are the first ones of a larger.
 */
inline kit::Frame soakFrame(kit::FrameSize size, uint32_t number) {
    return kit::patternOf(size, 7 + number % kSoakFrames);
}

/** Knows what a client of one size may get. Value type. */
class SoakFrames {
public:
    explicit SoakFrames(kit::FrameSize size) {
        for (uint32_t number = 0; number < kSoakFrames; ++number) {
            mUpright.push_back(soakFrame(size, number));
            mTurned.push_back(kit::turnedBy180(mUpright.back(), size));
        }
    }
    /** The one for this number, upright or turned. */
    const kit::Frame& of(uint32_t number, bool turned) const {
        return (turned ? mTurned : mUpright)[number % kSoakFrames];
    }
    /** Whether it is any of them: who fills the buffers, and which way up, changes all the time. */
    bool have(const kit::Frame& frame) const {
        for (uint32_t number = 0; number < kSoakFrames; ++number) {
            if (frame == mUpright[number] || frame == mTurned[number]) return true;
        }
        return false;
    }

private:
    std::vector<kit::Frame> mUpright;
    std::vector<kit::Frame> mTurned;
};

}  // namespace tools
