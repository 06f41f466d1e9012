// What the copies of frames between memory and buffers refuse, and the dumps of what a client sent.

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "ZoruUtil.h"
#include "host/mapper.h"
#include "support/session_fixture.h"

namespace testing_support {

namespace {

class FrameCopyTest : public testing::Test {
protected:
    /** Also that no buffer stays locked. */
    void fails(int result, const std::string& line) {
        EXPECT_EQ(result, -1);
        EXPECT_EQ(log.take("zoruutil"), Lines{line});
        const host::MapperCounters now = host::mapperCounters();
        EXPECT_EQ(now.locks - before.locks, now.unlocks - before.unlocks) << line;
        refused += line.find("(3)") != std::string::npos ? 1 : 0;
        EXPECT_EQ(now.refusals - before.refusals, refused) << line;  // nor is unlocked in vain
    }
    static sp<GraphicBuffer> bufferOf(uint32_t width, uint32_t height, uint32_t chromaStep = 2) {
        return wrap(allocate(width, height, {0, 0, 0, 0, host::ChromaOrder::CbFirst, chromaStep}));
    }

    LogLines log;
    const host::MapperCounters before = host::mapperCounters();
    int refused = 0;  ///< locks
    const sp<GraphicBuffer> good = bufferOf(8, 4);
    const sp<GraphicBuffer> planar = bufferOf(8, 4, 1);
    const sp<GraphicBuffer> wide = bufferOf(8, 4, 4);
    const sp<GraphicBuffer> closed = wrap(allocate(8, 4), 0);  // no processor usage
    std::vector<uint8_t> memory = std::vector<uint8_t>(128 * 32 * 2);
    zoru_ycbcr frame{memory.data(), 8, 4};
};

}  // namespace

TEST_F(FrameCopyTest, TellsWhyAFrameIsNotCopied) {
    const std::string unhandled = "E 420 planar format is not handled \n";
    fails(ZoruUtil::copyFrom(nullptr, good), "E Invalid params: buffer((nil)) \n");
    fails(ZoruUtil::copyTo(nullptr, good), "E Invalid params: buffer((nil)) \n");
    fails(ZoruUtil::copyTo(memory.data(), planar), unhandled);
    fails(ZoruUtil::copyFrom(memory.data(), planar), unhandled);
    fails(ZoruUtil::copy(good, planar), unhandled);
    fails(ZoruUtil::copy(wide, good), unhandled);
    fails(ZoruUtil::copy(planar, frame), unhandled);
    frame.chroma_step = 1;
    fails(ZoruUtil::copy(good, frame), unhandled);
    fails(ZoruUtil::copy(good, bufferOf(4, 4)),
          "E source is smaller: width(4) height(4), not width(8) height(4) \n");
    fails(ZoruUtil::copy(good, bufferOf(8, 2)),
          "E source is smaller: width(8) height(2), not width(8) height(4) \n");
    android_ycbcr at = {};
    EXPECT_EQ(wide->lockYCbCr(0x33, &at) + wide->unlock(), 0);
    char line[200];
    snprintf(line, sizeof(line),
             "E  unhanlded buffer format: y(%p) cb(%p) cr(%p) ystride(8) cstride(16) "
             "chroma_step(4) \n",
             at.y, at.cb, at.cr);
    fails(ZoruUtil::copyFrom(memory.data(), wide), line);
    fails(ZoruUtil::copyFrom(memory.data(), closed), "E lockYCbCr failed, error (3) \n");
    fails(ZoruUtil::copyTo(memory.data(), closed), "E lockYCbCr failed, error(3) \n");
    fails(ZoruUtil::copy(good, closed), "E 325:lock failed, error (3) \n");
    fails(ZoruUtil::copy(closed, good), "E 332:lock failed, error (3) \n");
    fails(ZoruUtil::copy(closed, frame), "E copy:379: lockYCbCr failed, error (3) \n");

    // A failed unlock alone: told by copyFrom and copyTo, ignored by both copies.
    host::failNextUnlock(-8);
    fails(ZoruUtil::copyFrom(memory.data(), good), "E unlock failed, error (-8) \n");
    host::failNextUnlock(-8);
    fails(ZoruUtil::copyTo(memory.data(), good), "E unlock failed, error(-8) \n");
    frame.chroma_step = 2;
    host::failNextUnlock(-8);
    EXPECT_EQ(ZoruUtil::copy(good, good), 0);
    host::failNextUnlock(-8);
    EXPECT_EQ(ZoruUtil::copy(good, frame), 0);
}

TEST_F(FrameCopyTest, RefusesAFrameWithoutAddresses) {
    const std::string invalid = "E copy:372: Invalid args \n";
    fails(ZoruUtil::copy(nullptr, frame), invalid);
    for (void** const plane : {&frame.y, &frame.cb, &frame.cr}) {
        void* const kept = std::exchange(*plane, nullptr);
        fails(ZoruUtil::copy(good, frame), invalid);
        *plane = kept;
    }
    // Negative, over 32 bits, or nothing there: no chroma addresses.
    for (const auto& [width, height] :
         {std::pair(200, -100), {-200, -100}, {65536, 65536}, {INT32_MAX, 1}}) {
        zoru_ycbcr impossible(memory.data(), width, height);
        fails(ZoruUtil::copy(good, impossible), invalid);
    }
    zoru_ycbcr nothing(nullptr, 16, 16);
    EXPECT_EQ(nothing.cb, nullptr);
    fails(ZoruUtil::copy(good, nothing), invalid);
}

TEST_F(FrameCopyTest, DumpsRequestsAndConfigurations) {
    CaptureRequest request = requestFor(7, UINT64_MAX, nullptr, -3);
    request.outputBuffers.resize(2);
    ZoruUtil::dumpCaptureRequest(request);
    StreamConfiguration configuration = configurationOf(2, 1280, 720);
    configuration.streams.resize(2);
    ZoruUtil::dumpConfiguration(configuration);
    EXPECT_EQ(
        log.take("zoruutil"),
        (Lines{
            "I dumpCaptureRequest: dumping received capture reqest:  \n",
            "I dumpCaptureRequest: frameNumber(7)  \n",
            "I dumpCaptureRequest: outputBuffersCount(2)  \n",
            "I dumpCaptureRequest: streamId(-3) bufferId(18446744073709551615) \n",
            "I dumpCaptureRequest: streamId(0) bufferId(0) \n",
            "I dumpConfiguration: dumping stream configuration:  \n",
            "I dumpConfiguration: operationMode(32769)  \n",
            "I dumpConfiguration: streamsCount(2)  \n",
            "I dumpConfiguration: streamId(2) streamType(1) width(1280) height(720) format(0x23) usage(0x33) rotation(3)\n",
            "I dumpConfiguration: streamId(0) streamType(0) width(0) height(0) format(0x0) usage(0x0) rotation(0)\n"}));
}

}  // namespace testing_support
