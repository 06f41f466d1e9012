// The rotation of a frame by 180 degrees.

#include <gtest/gtest.h>

#include <algorithm>
#include <numeric>

#include "Rotate180.h"
#include "host/mapper.h"
#include "support/session_fixture.h"

namespace testing_support {

TEST(RotationTest, TurnsEveryGeometryAndTouchesNoPadding) {
    const auto bufferOf = [](const kit::Frame& frame, kit::FrameSize size, bool crFirst) {
        host::BufferGeometry geometry;
        geometry.stride = crFirst ? 192 : 191;  // an odd one moves pairs to odd addresses
        geometry.chromaStride = crFirst ? 200 : 201;
        geometry.order = crFirst ? host::ChromaOrder::CrFirst : host::ChromaOrder::CbFirst;
        host::Buffer buffer = kit::allocate(size, geometry);
        // Padding of which every row has another, and none what the frame has there.
        std::iota(buffer.bytes(), buffer.bytes() + buffer.size(), uint8_t{0});
        kit::fill(buffer, frame);
        return buffer;
    };
    for (const int height : {1, 2, 3, 4, 5, 6, 7, 12}) {
        for (const int width : {1, 2, 5, 16, 61, 160}) {
            const kit::FrameSize size = {width, height};
            const kit::Frame frame = kit::patternOf(size);
            const kit::Frame turned = kit::turnedBy180(frame, size);
            for (const bool crFirst : {false, true}) {
                const host::Buffer buffer = bufferOf(frame, size, crFirst);
                const host::Buffer expected = bufferOf(turned, size, crFirst);
                rotate180(wrap(buffer));
                ASSERT_EQ(kit::difference(kit::packed(buffer), turned, size), "")
                    << width << " x " << height;
                ASSERT_TRUE(
                    std::equal(buffer.bytes(), buffer.bytes() + buffer.size(), expected.bytes()))
                    << "the padding of " << width << " x " << height;
            }
        }
    }
}

TEST(RotationTest, TellsWhatItCannotTurnAndUnlocksWhatItLocked) {
    LogLines log;
    host::BufferGeometry planar;
    planar.chromaStep = 1;
    const host::Buffer buffer = allocate(4, 4, planar);
    const kit::Frame before = kit::patternOf({4, 4});
    std::copy(before.begin(), before.end(), buffer.bytes());
    const host::MapperCounters counters = host::mapperCounters();

    rotate180(nullptr);
    rotate180(wrap(buffer, 0));  // no processor usage: the lock fails
    rotate180(wrap(buffer));
    host::failNextUnlock(-5);
    rotate180(wrap(allocate(4, 4)));

    EXPECT_EQ(log.said(kSessionTag), (Lines{"E rotate180: Invalid graphics buffer \n",
                                            "E rotate180: lockYCbCr failed, error (3) \n",
                                            "E rotate180: unhandled chroma format step 1 \n",
                                            "E rotate180: unlock failed, error (-5) \n"}));
    EXPECT_TRUE(std::equal(before.begin(), before.end(), buffer.bytes()));
    EXPECT_EQ(host::mapperCounters().unlocks - counters.unlocks, 2);
    EXPECT_EQ(host::mapperCounters().locks - counters.locks, 2);
}

}  // namespace testing_support
