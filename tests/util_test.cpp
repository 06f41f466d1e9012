// What copies and rotation refuse, and say, and how a frame in memory is described. What they move
// is in the pixels' test, and the raw YUV file has its fuzzer.

#include <string>
#include <utility>

#include "Rotate180.h"
#include "YUVFile.h"
#include "ZoruUtil.h"
#include "host/mapper.h"
#include "support/session_fixture.h"

namespace testing_support {

namespace {

struct UtilTest : public testing::Test {
    Lines said() { return log.take("zoruutil"); }
    void fails(int result, const std::string& line) {
        EXPECT_EQ(result, -1);
        EXPECT_EQ(said(), Lines{line});
    }
    static sp<GraphicBuffer> bufferOf(kit::FrameSize size, uint32_t chromaStep) {
        return wrap(allocate(size, {0, 0, 0, 0, host::ChromaOrder::CbFirst, chromaStep}));
    }

    LogLines log;
    const sp<GraphicBuffer> good = bufferOf({8, 4}, 2);
    const sp<GraphicBuffer> closed = wrap(allocate({8, 4}), 0);  // no processor usage
    uint8_t memory[128 * 48] = {7};
    zoru_ycbcr frame{memory, 8, 4};
};

}  // namespace

TEST_F(UtilTest, TellsWhyAFrameIsNotCopied) {
    const host::MapperCounters before = host::mapperCounters();
    const host::Buffer zeros = allocate({8, 4}, {0, 0, 0, 0, host::ChromaOrder::CbFirst, 1});
    const sp<GraphicBuffer> planar = wrap(zeros);
    EXPECT_EQ(ZoruUtil::copyTo(memory, good), 0);
    const std::string unhandled = "E 420 planar format is not handled \n";
    fails(ZoruUtil::copyTo(memory, planar), unhandled);
    fails(ZoruUtil::copy(good, planar), unhandled);
    fails(ZoruUtil::copy(planar, good), unhandled);
    fails(ZoruUtil::copy(planar, frame), unhandled);
    frame.chroma_step = 1;
    fails(ZoruUtil::copy(good, frame), unhandled);
    fails(ZoruUtil::copy(good, bufferOf({4, 4}, 2)),
          "E source is smaller: width(4) height(4), not width(8) height(4) \n");
    fails(ZoruUtil::copy(good, bufferOf({8, 2}, 2)),
          "E source is smaller: width(8) height(2), not width(8) height(4) \n");
    const sp<GraphicBuffer> wide = bufferOf({8, 4}, 4);
    android_ycbcr at = {};
    EXPECT_EQ(wide->lockYCbCr(0x33, &at), 0);
    EXPECT_EQ(closed->lockYCbCr(0, &at), 3);  // leaves the record alone
    EXPECT_EQ(wide->unlock(), 0);
    EXPECT_EQ(wide->unlock(), 0);  // the mapper refuses, and nobody is told
    const auto line = testing::Message()
                      << "E  unhanlded buffer format: y(" << at.y << ") cb(" << at.cb << ") cr("
                      << at.cr << ") ystride(8) cstride(16) chroma_step(4) \n";
    fails(ZoruUtil::copyFrom(memory, wide), line.GetString());
    fails(ZoruUtil::copyFrom(memory, closed), "E lockYCbCr failed, error (3) \n");
    fails(ZoruUtil::copyTo(memory, closed), "E lockYCbCr failed, error(3) \n");
    fails(ZoruUtil::copy(good, closed), "E 325:lock failed, error (3) \n");
    fails(ZoruUtil::copy(closed, good), "E 332:lock failed, error (3) \n");
    fails(ZoruUtil::copy(closed, frame), "E copy:379: lockYCbCr failed, error (3) \n");
    EXPECT_TRUE(std::exchange(*memory, 0) == 7 && *zeros.bytes() == 0);  // nothing was copied
    // A failed unlock alone: told by copyFrom and copyTo, ignored by both copies.
    frame.chroma_step = 2;
    host::failNextUnlock(-8);
    fails(ZoruUtil::copyFrom(memory, good), "E unlock failed, error (-8) \n");
    EXPECT_EQ(*memory, 7);
    host::failNextUnlock(-8);
    fails(ZoruUtil::copyTo(memory, good), "E unlock failed, error(-8) \n");
    host::failNextUnlock(-8);
    EXPECT_EQ(ZoruUtil::copy(good, good), 0);
    host::failNextUnlock(-8);
    EXPECT_EQ(ZoruUtil::copy(good, frame), 0);
    rotate180(nullptr);
    EXPECT_EQ(log.take(kSessionTag), Lines{"E rotate180: Invalid graphics buffer \n"});
    // No buffer stays locked, and none but the one above is unlocked in vain.
    const host::MapperCounters now = host::mapperCounters();
    EXPECT_EQ(now.locks - before.locks, now.unlocks - before.unlocks);
    EXPECT_EQ(now.refusals - before.refusals, 5 + 2);
}

TEST_F(UtilTest, TakesADescribedFrameThatHasAddresses) {
    const std::string invalid = "E copy:372: Invalid args \n";
    YUVFile("frames", 1, INT32_MAX / 3);  // the largest, of which there is nothing to say
    fails(ZoruUtil::copy(nullptr, frame), invalid);
    for (void** const plane : {&frame.y, &frame.cb, &frame.cr}) {
        void* const kept = std::exchange(*plane, nullptr);
        fails(ZoruUtil::copy(good, frame), invalid);
        *plane = kept;
    }
    for (const int height : {0, 1, 32})
        EXPECT_EQ(zoru_ycbcr(memory, 128, height).cb, memory + 128 * 32);
    // Of no memory, negative, or over 32 bits.
    const zoru_ycbcr impossible[] = {
        {nullptr, 16, 16}, {memory, 200, -100}, {memory, -200, -100}, {memory, 65536, 65536}};
    for (const zoru_ycbcr& record : impossible)
        EXPECT_TRUE(record.cb == nullptr && record.cr == nullptr);
}

TEST_F(UtilTest, DumpsRequestsAndConfigurations) {
    CaptureRequest request = requestFor(7, UINT64_MAX, nullptr, -3);
    request.outputBuffers.resize(2);
    ZoruUtil::dumpCaptureRequest(request);
    StreamConfiguration configuration = configurationOf(2, kit::kClipSize);
    configuration.streams.resize(2);
    ZoruUtil::dumpConfiguration(configuration);
    EXPECT_EQ(
        said(),
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
