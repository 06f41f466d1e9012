#include "marked_frame.h"

#include <cstring>

#include "frames.h"

namespace bench {

MarkedFrame::MarkedFrame() : mPacked(testFrame(kSizes[0])) {}

uint8_t* MarkedFrame::numbered(uint32_t frameNumber) {
    // The first luma and the last chroma.
    memcpy(mPacked.data(), &frameNumber, sizeof(frameNumber));
    memcpy(mPacked.data() + size() - sizeof(frameNumber), &frameNumber, sizeof(frameNumber));
    return mPacked.data();
}

bool MarkedFrame::isIn(const uint8_t* packed, uint32_t frameNumber, bool everyByte) {
    if (everyByte) return memcmp(packed, numbered(frameNumber), size()) == 0;
    const size_t last = size() - sizeof(frameNumber);
    return memcmp(packed, &frameNumber, sizeof(frameNumber)) == 0 &&
           memcmp(packed + last, &frameNumber, sizeof(frameNumber)) == 0;
}

}  // namespace bench
