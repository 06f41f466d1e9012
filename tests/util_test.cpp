// What the copies of frames and the raw YUV file refuse, and say. What they move is in the pixels'
// test and the raw file's fuzzer.

#include <gtest/gtest.h>

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <string>
#include <utility>

#include "YUVFile.h"
#include "ZoruUtil.h"
#include "host/mapper.h"
#include "support/session_fixture.h"
#include "temporary_folder.h"

namespace testing_support {

namespace {

constexpr int kBytes = 6144;  // of 64 x 64: more than a stream reads ahead

struct UtilTest : public testing::Test {
    Lines said() { return log.take("zoruutil"); }
    void fails(int result, const std::string& line) {
        EXPECT_EQ(result, -1);
        EXPECT_EQ(said(), Lines{line});
    }
    static sp<GraphicBuffer> bufferOf(uint32_t width, uint32_t height, uint32_t chromaStep) {
        return wrap(allocate(width, height, {0, 0, 0, 0, host::ChromaOrder::CbFirst, chromaStep}));
    }

    LogLines log;
    const kit::TemporaryFolder folder;
    const std::string path = folder / "frames";
    const sp<GraphicBuffer> good = bufferOf(8, 4, 2);
    const sp<GraphicBuffer> closed = wrap(allocate(8, 4), 0);  // no processor usage
    uint8_t memory[128 * 48] = {};
    zoru_ycbcr frame{memory, 8, 4};
};

}  // namespace

TEST_F(UtilTest, TellsWhyAFrameIsNotCopied) {
    const host::MapperCounters before = host::mapperCounters();
    const sp<GraphicBuffer> planar = bufferOf(8, 4, 1);
    const std::string unhandled = "E 420 planar format is not handled \n";
    fails(ZoruUtil::copyTo(memory, planar), unhandled);
    fails(ZoruUtil::copy(good, planar), unhandled);
    fails(ZoruUtil::copy(planar, good), unhandled);
    fails(ZoruUtil::copy(planar, frame), unhandled);
    frame.chroma_step = 1;
    fails(ZoruUtil::copy(good, frame), unhandled);
    fails(ZoruUtil::copy(good, bufferOf(4, 4, 2)),
          "E source is smaller: width(4) height(4), not width(8) height(4) \n");
    fails(ZoruUtil::copy(good, bufferOf(8, 2, 2)),
          "E source is smaller: width(8) height(2), not width(8) height(4) \n");
    const sp<GraphicBuffer> wide = bufferOf(8, 4, 4);
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
    // A failed unlock alone: told by copyFrom and copyTo, ignored by both copies.
    frame.chroma_step = 2;
    host::failNextUnlock(-8);
    fails(ZoruUtil::copyFrom(memory, good), "E unlock failed, error (-8) \n");
    host::failNextUnlock(-8);
    fails(ZoruUtil::copyTo(memory, good), "E unlock failed, error(-8) \n");
    host::failNextUnlock(-8);
    EXPECT_EQ(ZoruUtil::copy(good, good), 0);
    host::failNextUnlock(-8);
    EXPECT_EQ(ZoruUtil::copy(good, frame), 0);
    // No buffer stays locked, and none but the one above is unlocked in vain.
    const host::MapperCounters now = host::mapperCounters();
    EXPECT_EQ(now.locks - before.locks, now.unlocks - before.unlocks);
    EXPECT_EQ(now.refusals - before.refusals, 5 + 2);
}

TEST_F(UtilTest, TellsWhyNothingWasWritten) {
    YUVFile none(nullptr, 2, 3), full("/dev/full", 2, 2), fullAtOnce("/dev/full", 64, 64);
    EXPECT_EQ(said(), Lines{"E invalid args: inFile((nil)) width(2) height(3) \n"});
    fails(none.putFrame(sp<GraphicBuffer>()), "E invalid Graphics buffer \n");
    fails(none.putFrame(static_cast<native_handle*>(nullptr)), "E  Invalid handle \n");
    fails(none.putFrame(frame), "E  Invalid handle \n");
    const std::string reason = " error - No space left on device \n";
    fails(full.putFrame(), "E file writing failed, status - 6" + reason);
    fails(fullAtOnce.putFrame(), "E file writing failed, status - 0" + reason);
    auto* const handle = const_cast<native_handle_t*>(good->handle);
    EXPECT_EQ(YUVFile(path.c_str(), 8, 4).putFrame(handle), 48);
    fails(YUVFile(path.c_str(), 9, 4).putFrame(handle), "E Failed to get Graphics buffer \n");
    // With a product of 0, or over 31 bits, or just not.
    for (const auto& [width, height] :
         {std::pair(65536, 65536), {-6, -6}, {1, INT32_MAX / 3 + 1}, {1, INT32_MAX / 3}})
        YUVFile(path.c_str(), width, height);
    EXPECT_EQ(said().size(), 3U);
}

TEST_F(UtilTest, TakesADescribedFrameThatFitsAndHasAddresses) {
    YUVFile file(path.c_str(), 4, 4);
    const std::string invalid = "E copy:372: Invalid args \n";
    fails(ZoruUtil::copy(nullptr, frame), invalid);
    for (void** const plane : {&frame.y, &frame.cb, &frame.cr}) {
        void* const kept = std::exchange(*plane, nullptr);
        fails(ZoruUtil::copy(good, frame), invalid);
        fails(file.putFrame(frame), "E  Invalid handle \n");
        *plane = kept;
    }
    // Of no memory, negative, or over 32 bits.
    const zoru_ycbcr impossible[] = {
        {nullptr, 16, 16}, {memory, 200, -100}, {memory, -200, -100}, {memory, 65536, 65536}};
    for (const zoru_ycbcr& record : impossible)
        EXPECT_TRUE(record.cb == nullptr && record.cr == nullptr);
    // One without an extent has no rows.
    const int rows[][3] = {{4, 4, 24}, {2, 9, -1}, {65536, 65536, -1}, {-6, -6, 24}};
    for (const auto& [width, height, status] : rows) {
        frame.width = width;
        frame.height = height;
        EXPECT_EQ(file.putFrame(frame), status);
        EXPECT_EQ(said().size(), status < 0 ? 1U : 0U);
    }
}

TEST_F(UtilTest, PlaysOnWhenItsFileWasNotThereOrHasShrunk) {
    EXPECT_NE(YUVFile("/proc/self/exe", 2, 2).getFrame(), nullptr);  // nobody may write it
    // Of a path the first 255 characters count.
    const std::string kept =
        folder.path().string() + std::string(255 - path.size(), '/') + "/frames";
    YUVFile later((kept + std::string(45, 'x')).c_str(), 2, 2);
    EXPECT_EQ(later.getFrame(), nullptr);
    std::ofstream(path) << "123456";
    EXPECT_NE(later.getFrame(), nullptr);
    EXPECT_EQ(said(),
              Lines{"E file " + kept + " open failed, error - No such file or directory \n"});

    const std::string frames = std::string(kBytes, 'a') + std::string(kBytes, 'b');
    for (size_t left = 0; left <= frames.size(); left += 1024) {
        std::ofstream(path) << frames;
        YUVFile file(path.c_str(), 64, 64);
        EXPECT_NE(file.getFrame(), nullptr);
        std::filesystem::resize_file(path, left);
        file.getFrame();  // of which the stream may have read ahead all
        said();
        const uint8_t* const played = file.getFrame();
        EXPECT_EQ(said().size(), left < kBytes ? 1U : 0U) << left;
        EXPECT_EQ(played != nullptr, left >= kBytes) << left;
        EXPECT_TRUE(played == nullptr || std::count(played, played + kBytes, *played) == kBytes);
        std::ofstream(path) << frames;
        EXPECT_NE(file.getFrame(), nullptr) << left;
    }
}

TEST_F(UtilTest, DumpsRequestsAndConfigurations) {
    CaptureRequest request = requestFor(7, UINT64_MAX, nullptr, -3);
    request.outputBuffers.resize(2);
    ZoruUtil::dumpCaptureRequest(request);
    StreamConfiguration configuration = configurationOf(2, 1280, 720);
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
