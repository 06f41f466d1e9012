// Copies of frames between memory and buffers, and the dumps of what a client sent.

#include <gtest/gtest.h>

#include <algorithm>
#include <numeric>
#include <random>
#include <string>
#include <utility>
#include <vector>

#include "ZoruUtil.h"
#include "host/mapper.h"
#include "support/session_fixture.h"

namespace testing_support {

namespace {

constexpr const char* kTag = "zoruutil";

void randomise(const host::Buffer& buffer, unsigned seed) {
    std::minstd_rand random(seed);
    std::generate_n(buffer.bytes(), buffer.size(), [&] { return static_cast<uint8_t>(random()); });
}

/** The rows of a buffer without their padding. */
std::vector<uint8_t> packed(const host::Buffer& buffer) {
    const host::BufferGeometry& geometry = buffer.geometry();
    std::vector<uint8_t> result;
    for (uint32_t y = 0; y < geometry.height; ++y) {
        result.insert(result.end(), buffer.lumaRow(y), buffer.lumaRow(y) + geometry.width);
    }
    for (uint32_t y = 0; y < geometry.height / 2; ++y) {
        result.insert(result.end(), buffer.chromaRow(y), buffer.chromaRow(y) + geometry.width);
    }
    return result;
}

host::BufferGeometry strided(host::ChromaOrder order = host::ChromaOrder::CbFirst) {
    host::BufferGeometry geometry;
    geometry.stride = 1536;
    geometry.chromaStride = 1600;
    geometry.order = order;
    return geometry;
}

class FrameCopyTest : public testing::Test {
protected:
    host::LogCapture log;
};

}  // namespace

TEST_F(FrameCopyTest, CopiesFramesAndNoPadding) {
    for (const auto order : {host::ChromaOrder::CbFirst, host::ChromaOrder::CrFirst}) {
        for (const auto& [width, height] : {std::pair{1280U, 720U}, {33U, 5U}, {16U, 1U}}) {
            const host::Buffer source = allocate(width, height, strided(order));
            const host::Buffer target = allocate(width, height, strided(order));
            randomise(source, width);
            const std::vector<uint8_t> expected = packed(source);
            std::vector<uint8_t> memory(expected.size() + 1, 0xAA);
            EXPECT_EQ(ZoruUtil::copyFrom(memory.data(), wrap(source)), 0);
            EXPECT_TRUE(std::equal(expected.begin(), expected.end(), memory.begin()));
            EXPECT_EQ(memory.back(), 0xAA);

            std::fill_n(target.bytes(), target.size(), uint8_t{0x55});
            EXPECT_EQ(ZoruUtil::copyTo(memory.data(), wrap(target)), 0);
            EXPECT_EQ(packed(target), expected);
            EXPECT_EQ(target.lumaRow(0)[width], 0x55);
            EXPECT_EQ(target.chromaRow(0)[width], 0x55);

            std::fill_n(target.bytes(), target.size(), uint8_t{0x55});
            EXPECT_EQ(ZoruUtil::copy(wrap(target), wrap(source)), 0);
            EXPECT_EQ(packed(target), expected);
            EXPECT_EQ(target.lumaRow(0)[width], 0x55);
        }
    }
    EXPECT_TRUE(log.lines().empty());
}

TEST_F(FrameCopyTest, DescribesAPaddedFrameInMemory) {
    std::vector<uint8_t> memory(1408 * 1024, 3);
    const zoru_ycbcr hd(memory.data(), 1280, 720);
    EXPECT_EQ(hd.cb, memory.data() + 942080);
    EXPECT_EQ(hd.cr, memory.data() + 942081);
    EXPECT_EQ(hd.ystride, 1280U);
    EXPECT_EQ(hd.cstride, 1280U);
    EXPECT_EQ(hd.chroma_step, 2U);
    EXPECT_EQ(hd.height, 720);
    zoru_ycbcr odd(memory.data(), 1000, 33);
    EXPECT_EQ(odd.ystride, 1024U);
    EXPECT_EQ(odd.cb, memory.data() + 65536);
    EXPECT_EQ(zoru_ycbcr(memory.data(), 128, 0).cb, memory.data() + 4096);

    const host::Buffer target = allocate(100, 20);
    std::iota(memory.begin(), memory.end(), uint8_t{0});
    odd.cr = memory.data() + 60000;  // the lower of the two counts
    EXPECT_EQ(ZoruUtil::copy(wrap(target), odd), 0);
    EXPECT_TRUE(std::equal(target.lumaRow(19), target.lumaRow(19) + 100, &memory[19 * 1024]));
    EXPECT_TRUE(
        std::equal(target.chromaRow(9), target.chromaRow(9) + 100, &memory[60000 + 9 * 1024]));

    // Over 32 bits, or nothing there: no chroma addresses, so no operation takes it.
    zoru_ycbcr huge(memory.data(), 65536, 65536);
    zoru_ycbcr nothing(nullptr, 16, 16);
    zoru_ycbcr widest(memory.data(), INT32_MAX, 1);
    for (zoru_ycbcr* const frame : {&huge, &nothing, &widest}) {
        EXPECT_EQ(ZoruUtil::copy(wrap(target), *frame), -1);
    }
    EXPECT_EQ(ZoruUtil::copy(nullptr, odd), -1);
    EXPECT_EQ(log.count("copy:372: Invalid args \n"), 4);
}

TEST_F(FrameCopyTest, TellsWhyAFrameIsNotCopied) {
    host::BufferGeometry planarGeometry;
    planarGeometry.chromaStep = 1;
    host::BufferGeometry wideGeometry;
    wideGeometry.chromaStep = 4;
    const sp<GraphicBuffer> good = wrap(allocate(8, 4));
    const sp<GraphicBuffer> planar = wrap(allocate(8, 4, planarGeometry));
    const sp<GraphicBuffer> wide = wrap(allocate(8, 4, wideGeometry));
    const sp<GraphicBuffer> closed = wrap(allocate(8, 4), 0);
    const sp<GraphicBuffer> small = wrap(allocate(4, 4));
    const sp<GraphicBuffer> low = wrap(allocate(8, 2));
    std::vector<uint8_t> memory(48, 9);
    zoru_ycbcr frame(memory.data(), 8, 4);
    frame.cb = memory.data();
    frame.cr = memory.data() + 1;
    frame.ystride = frame.cstride = 8;
    const host::MapperCounters before = host::mapperCounters();
    const auto fails = [&](int result, const std::vector<std::string>& lines) {
        EXPECT_EQ(result, -1);
        EXPECT_EQ(log.texts(kTag), lines);
        log.clear();
        const host::MapperCounters now = host::mapperCounters();
        EXPECT_EQ(now.locks - before.locks, now.unlocks - before.unlocks);
    };
    const std::string unhandled = "420 planar format is not handled \n";
    fails(ZoruUtil::copyTo(nullptr, good), {"Invalid params: buffer((nil)) \n"});
    fails(ZoruUtil::copyFrom(nullptr, good), {"Invalid params: buffer((nil)) \n"});
    EXPECT_EQ(host::mapperCounters().locks, before.locks);
    fails(ZoruUtil::copyFrom(memory.data(), closed), {"lockYCbCr failed, error (3) \n"});
    fails(ZoruUtil::copyTo(memory.data(), closed), {"lockYCbCr failed, error(3) \n"});
    fails(ZoruUtil::copyFrom(memory.data(), planar), {unhandled});
    fails(ZoruUtil::copyTo(memory.data(), planar), {unhandled});
    fails(ZoruUtil::copy(good, planar), {unhandled});
    fails(ZoruUtil::copy(wide, good), {unhandled});
    fails(ZoruUtil::copy(planar, frame), {unhandled});
    fails(ZoruUtil::copy(good, closed), {"325:lock failed, error (3) \n"});
    fails(ZoruUtil::copy(closed, good), {"332:lock failed, error (3) \n"});
    fails(ZoruUtil::copy(closed, frame), {"copy:379: lockYCbCr failed, error (3) \n"});
    fails(ZoruUtil::copy(good, small),
          {"source is smaller: width(4) height(4), not width(8) height(4) \n"});
    fails(ZoruUtil::copy(good, low),
          {"source is smaller: width(8) height(2), not width(8) height(4) \n"});
    EXPECT_EQ(ZoruUtil::copyFrom(memory.data(), wide), -1);
    ASSERT_EQ(log.texts(kTag).size(), 1U);
    EXPECT_EQ(log.texts(kTag)[0].rfind(" unhanlded buffer format: y(0x", 0), 0U);
    EXPECT_NE(log.texts(kTag)[0].find(") ystride(8) cstride(16) chroma_step(4) \n"),
              std::string::npos);
    log.clear();
    frame.chroma_step = 1;
    fails(ZoruUtil::copy(good, frame), {unhandled});

    // A failed unlock alone: told by copyFrom and copyTo, ignored by both copies.
    host::failNextUnlock(-8);
    fails(ZoruUtil::copyFrom(memory.data(), good), {"unlock failed, error (-8) \n"});
    host::failNextUnlock(-8);
    fails(ZoruUtil::copyTo(memory.data(), good), {"unlock failed, error(-8) \n"});
    host::failNextUnlock(-8);
    EXPECT_EQ(ZoruUtil::copy(good, good), 0);
    frame.chroma_step = 2;
    host::failNextUnlock(-8);
    EXPECT_EQ(ZoruUtil::copy(good, frame), 0);
}

TEST_F(FrameCopyTest, DumpsRequestsAndConfigurations) {
    CaptureRequest request = requestFor(7, UINT64_MAX, nullptr, -3);
    ZoruUtil::dumpCaptureRequest(request);
    StreamConfiguration configuration = configurationOf(2, 1280, 720);
    configuration.streams[0].format =
        android::hardware::graphics::common::V1_0::PixelFormat::YCBCR_420_888;
    ZoruUtil::dumpConfiguration(configuration);
    StreamConfiguration none = {};
    ZoruUtil::dumpConfiguration(none);
    const std::vector<std::string> lines = {
        "dumpCaptureRequest: dumping received capture reqest:  \n",
        "dumpCaptureRequest: frameNumber(7)  \n",
        "dumpCaptureRequest: outputBuffersCount(1)  \n",
        "dumpCaptureRequest: streamId(-3) bufferId(18446744073709551615) \n",
        "dumpConfiguration: dumping stream configuration:  \n",
        "dumpConfiguration: operationMode(32769)  \n",
        "dumpConfiguration: streamsCount(1)  \n",
        "dumpConfiguration: streamId(2) streamType(0) width(1280) height(720) format(0x23) usage(0x33) rotation(0)\n",
        "dumpConfiguration: dumping stream configuration:  \n",
        "dumpConfiguration: operationMode(0)  \n",
        "dumpConfiguration: streamsCount(0)  \n"};
    EXPECT_EQ(log.texts(kTag), lines);
}

}  // namespace testing_support
