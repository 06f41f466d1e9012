// What the rotation of a frame by 180 degrees refuses.

#include <gtest/gtest.h>

#include <algorithm>

#include "Rotate180.h"
#include "host/mapper.h"
#include "support/session_fixture.h"

namespace testing_support {

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
