// What the copies of frames between memory and buffers refuse, and the dumps of what a client sent.

#include <gtest/gtest.h>

#include <string>
#include <utility>
#include <vector>

#include "ZoruUtil.h"
#include "host/mapper.h"
#include "support/session_fixture.h"

namespace testing_support {

namespace {

constexpr const char* kTag = "zoruutil";

class FrameCopyTest : public testing::Test {
protected:
    /** That one of a buffer's kind is copied by none of the operations, and why. */
    void fails(int result, const std::string& line) {
        EXPECT_EQ(result, -1);
        EXPECT_EQ(log.take(kTag), Lines{line});
        const host::MapperCounters now = host::mapperCounters();
        EXPECT_EQ(now.locks - before.locks, now.unlocks - before.unlocks);
    }

    LogLines log;
    const host::MapperCounters before = host::mapperCounters();
};

sp<GraphicBuffer> bufferWithChromaStep(uint32_t step) {
    host::BufferGeometry geometry;
    geometry.chromaStep = step;
    return wrap(allocate(8, 4, geometry));
}

/** 8 x 4 in 48 bytes. */
zoru_ycbcr packedFrame(std::vector<uint8_t>& memory) {
    zoru_ycbcr frame(memory.data(), 8, 4);
    frame.cb = memory.data();
    frame.cr = memory.data() + 1;
    frame.ystride = frame.cstride = 8;
    return frame;
}

}  // namespace

TEST_F(FrameCopyTest, RefusesAFrameWithoutAddresses) {
    std::vector<uint8_t> memory(1408 * 1024, 3);
    zoru_ycbcr odd(memory.data(), 1000, 33);
    const host::Buffer target = allocate(100, 20);
    // Negative, over 32 bits, or nothing there: no chroma addresses, so no operation takes it.
    zoru_ycbcr below(memory.data(), 200, -100);
    zoru_ycbcr left(memory.data(), -200, -100);
    zoru_ycbcr huge(memory.data(), 65536, 65536);
    zoru_ycbcr nothing(nullptr, 16, 16);
    zoru_ycbcr widest(memory.data(), INT32_MAX, 1);
    for (zoru_ycbcr* const frame : {&below, &left, &huge, &nothing, &widest})
        fails(ZoruUtil::copy(wrap(target), *frame), "E copy:372: Invalid args \n");
    fails(ZoruUtil::copy(nullptr, odd), "E copy:372: Invalid args \n");
    for (void** const plane : {&odd.y, &odd.cb, &odd.cr}) {
        void* const kept = std::exchange(*plane, nullptr);
        fails(ZoruUtil::copy(wrap(target), odd), "E copy:372: Invalid args \n");
        *plane = kept;
    }
}

TEST_F(FrameCopyTest, TellsWhyAFrameIsNotCopied) {
    const sp<GraphicBuffer> good = wrap(allocate(8, 4));
    const sp<GraphicBuffer> closed = wrap(allocate(8, 4), 0);  // no processor usage
    const sp<GraphicBuffer> small = wrap(allocate(4, 4));
    const sp<GraphicBuffer> low = wrap(allocate(8, 2));
    std::vector<uint8_t> memory(48, 9);
    zoru_ycbcr frame = packedFrame(memory);
    fails(ZoruUtil::copyTo(nullptr, good), "E Invalid params: buffer((nil)) \n");
    fails(ZoruUtil::copyFrom(nullptr, good), "E Invalid params: buffer((nil)) \n");
    EXPECT_EQ(host::mapperCounters().locks, before.locks);
    fails(ZoruUtil::copyFrom(memory.data(), closed), "E lockYCbCr failed, error (3) \n");
    fails(ZoruUtil::copyTo(memory.data(), closed), "E lockYCbCr failed, error(3) \n");
    EXPECT_EQ(host::mapperCounters().refusals - before.refusals, 2);  // no unlock
    fails(ZoruUtil::copy(good, closed), "E 325:lock failed, error (3) \n");
    fails(ZoruUtil::copy(closed, good), "E 332:lock failed, error (3) \n");
    fails(ZoruUtil::copy(closed, frame), "E copy:379: lockYCbCr failed, error (3) \n");
    fails(ZoruUtil::copy(good, small),
          "E source is smaller: width(4) height(4), not width(8) height(4) \n");
    fails(ZoruUtil::copy(good, low),
          "E source is smaller: width(8) height(2), not width(8) height(4) \n");

    // A failed unlock alone: told by copyFrom and copyTo, ignored by both copies.
    host::failNextUnlock(-8);
    fails(ZoruUtil::copyFrom(memory.data(), good), "E unlock failed, error (-8) \n");
    host::failNextUnlock(-8);
    fails(ZoruUtil::copyTo(memory.data(), good), "E unlock failed, error(-8) \n");
    host::failNextUnlock(-8);
    EXPECT_EQ(ZoruUtil::copy(good, good), 0);
    host::failNextUnlock(-8);
    EXPECT_EQ(ZoruUtil::copy(good, frame), 0);
}

TEST_F(FrameCopyTest, CopiesOnlyInterleavedChroma) {
    const sp<GraphicBuffer> good = wrap(allocate(8, 4));
    const sp<GraphicBuffer> planar = bufferWithChromaStep(1);
    const sp<GraphicBuffer> wide = bufferWithChromaStep(4);
    std::vector<uint8_t> memory(48, 9);
    zoru_ycbcr frame = packedFrame(memory);
    const std::string unhandled = "E 420 planar format is not handled \n";
    fails(ZoruUtil::copyFrom(memory.data(), planar), unhandled);
    fails(ZoruUtil::copyTo(memory.data(), planar), unhandled);
    fails(ZoruUtil::copy(good, planar), unhandled);
    fails(ZoruUtil::copy(wide, good), unhandled);
    fails(ZoruUtil::copy(planar, frame), unhandled);
    frame.chroma_step = 1;
    fails(ZoruUtil::copy(good, frame), unhandled);

    android_ycbcr at = {};
    EXPECT_EQ(wide->lockYCbCr(0x33, &at) + wide->unlock(), 0);
    char line[200];
    snprintf(line, sizeof(line),
             "E  unhanlded buffer format: y(%p) cb(%p) cr(%p) ystride(8) cstride(16) "
             "chroma_step(4) \n",
             at.y, at.cb, at.cr);
    fails(ZoruUtil::copyFrom(memory.data(), wide), line);
}

TEST_F(FrameCopyTest, DumpsRequestsAndConfigurations) {
    CaptureRequest request = requestFor(7, UINT64_MAX, nullptr, -3);
    request.outputBuffers.resize(2);
    ZoruUtil::dumpCaptureRequest(request);
    EXPECT_EQ(log.take(kTag),
              (Lines{"I dumpCaptureRequest: dumping received capture reqest:  \n",
                     "I dumpCaptureRequest: frameNumber(7)  \n",
                     "I dumpCaptureRequest: outputBuffersCount(2)  \n",
                     "I dumpCaptureRequest: streamId(-3) bufferId(18446744073709551615) \n",
                     "I dumpCaptureRequest: streamId(0) bufferId(0) \n"}));
    StreamConfiguration configuration = configurationOf(2, 1280, 720);
    configuration.streams.resize(2);
    ZoruUtil::dumpConfiguration(configuration);
    EXPECT_EQ(
        log.take(kTag),
        (Lines{
            "I dumpConfiguration: dumping stream configuration:  \n",
            "I dumpConfiguration: operationMode(32769)  \n",
            "I dumpConfiguration: streamsCount(2)  \n",
            "I dumpConfiguration: streamId(2) streamType(1) width(1280) height(720) format(0x23) usage(0x33) rotation(3)\n",
            "I dumpConfiguration: streamId(0) streamType(0) width(0) height(0) format(0x0) usage(0x0) rotation(0)\n"}));
    StreamConfiguration none = {};
    ZoruUtil::dumpConfiguration(none);
    EXPECT_EQ(log.take(kTag), (Lines{"I dumpConfiguration: dumping stream configuration:  \n",
                                     "I dumpConfiguration: operationMode(0)  \n",
                                     "I dumpConfiguration: streamsCount(0)  \n"}));
}

}  // namespace testing_support
