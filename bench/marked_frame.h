#pragma once

#include <cstddef>
#include <cstdint>
#include <vector>

namespace bench {

/**
 * A 720p frame in packed memory that carries its number, so that who gets a copy can tell whether
 * it is the right one. For one thread.
 */
class MarkedFrame {
public:
    MarkedFrame();

    /** The frame of this number, good until another one is asked for. */
    uint8_t* numbered(uint32_t frameNumber);
    size_t size() const { return mPacked.size(); }

    /** Whether packed memory holds this frame: by its marks, or by every byte. */
    bool isIn(const uint8_t* packed, uint32_t frameNumber, bool everyByte);

private:
    std::vector<uint8_t> mPacked;
};

}  // namespace bench
