// The rotation of a frame by 180 degrees.

#include <gtest/gtest.h>

#include <algorithm>
#include <numeric>
#include <random>
#include <string>
#include <vector>

#include "Rotate180.h"
#include "host/buffer.h"
#include "host/mapper.h"
#include "support/session_fixture.h"

namespace testing_support {

namespace {

/** What a frame turned by 180 degrees is: the last sample first, in luma and in chroma pairs. */
std::vector<uint8_t> turned(const host::Buffer& buffer) {
    const host::BufferGeometry& geometry = buffer.geometry();
    std::vector<uint8_t> result(buffer.bytes(), buffer.bytes() + buffer.size());
    const auto at = [&](const uint8_t* p) -> uint8_t& {
        return result[static_cast<size_t>(p - buffer.bytes())];
    };
    for (uint32_t y = 0; y < geometry.height; ++y) {
        for (uint32_t x = 0; x < geometry.width; ++x) {
            at(buffer.lumaRow(y) + x) =
                buffer.lumaRow(geometry.height - 1 - y)[geometry.width - 1 - x];
        }
    }
    const uint32_t rows = geometry.height >= 4 ? geometry.height / 2 : 0;
    for (uint32_t y = 0; y < rows; ++y) {
        for (uint32_t x = 0; x < geometry.width; ++x) {
            const uint32_t from =
                x / 2 < geometry.width / 2 ? (geometry.width / 2 - 1 - x / 2) * 2 + x % 2 : x;
            // The byte of no pair keeps its column; in a middle row it keeps its place.
            at(buffer.chromaRow(y) + x) = buffer.chromaRow(rows - 1 - y)[from];
        }
    }
    return result;
}

}  // namespace

TEST(RotationTest, TurnsEveryGeometryAndTouchesNoPadding) {
    for (const uint32_t height : {1U, 2U, 3U, 4U, 5U, 6U, 7U, 12U}) {
        for (const uint32_t width : {1U, 2U, 5U, 16U, 61U, 160U}) {
            for (const bool crFirst : {false, true}) {
                host::BufferGeometry geometry;
                geometry.stride = crFirst ? 192 : 191;  // an odd one moves pairs to odd addresses
                geometry.chromaStride = crFirst ? 200 : 201;
                geometry.order = crFirst ? host::ChromaOrder::CrFirst : host::ChromaOrder::CbFirst;
                const host::Buffer buffer = allocate(width, height, geometry);
                std::minstd_rand random(width * 100 + height);
                std::generate_n(buffer.bytes(), buffer.size(),
                                [&] { return static_cast<uint8_t>(random()); });
                const std::vector<uint8_t> expected = turned(buffer);
                rotate180(wrap(buffer));
                ASSERT_TRUE(std::equal(expected.begin(), expected.end(), buffer.bytes()))
                    << width << " x " << height;
            }
        }
    }
}

TEST(RotationTest, TellsWhatItCannotTurnAndUnlocksWhatItLocked) {
    host::LogCapture log;
    host::BufferGeometry planar;
    planar.chromaStep = 1;
    const host::Buffer buffer = allocate(4, 4, planar);
    std::iota(buffer.bytes(), buffer.bytes() + buffer.size(), uint8_t{0});
    const std::vector<uint8_t> before(buffer.bytes(), buffer.bytes() + buffer.size());
    const host::MapperCounters counters = host::mapperCounters();

    rotate180(nullptr);
    rotate180(wrap(buffer, 0));  // no processor usage: the lock fails
    rotate180(wrap(buffer));
    host::failNextUnlock(-5);
    rotate180(wrap(allocate(4, 4)));

    const std::vector<std::string> lines = {
        "rotate180: Invalid graphics buffer \n", "rotate180: lockYCbCr failed, error (3) \n",
        "rotate180: unhandled chroma format step 1 \n", "rotate180: unlock failed, error (-5) \n"};
    EXPECT_EQ(log.texts(kSessionTag), lines);
    EXPECT_TRUE(std::equal(before.begin(), before.end(), buffer.bytes()));
    EXPECT_EQ(host::mapperCounters().unlocks - counters.unlocks, 2);
    EXPECT_EQ(host::mapperCounters().locks - counters.locks, 2);
}

}  // namespace testing_support
