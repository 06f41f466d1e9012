// What moves and turns pixels, over all small sizes, strides and chroma orders, against a plain
// reference. Packed memory lies against a page that cannot be touched, once before it and once
// behind it; of a buffer every byte is compared, to the end of its last page. And what the copies
// refuse, and the dumps of what a client sent.

#include <gtest/gtest.h>
#include <sys/mman.h>
#include <unistd.h>

#include <algorithm>
#include <string>
#include <vector>

#include "Rotate180.h"
#include "YUVFile.h"
#include "ZoruUtil.h"
#include "host/mapper.h"
#include "host/unique_fd.h"
#include "support/guarded.h"
#include "support/session_fixture.h"
#include "support/slow.h"

namespace testing_support {

namespace {

using Bytes = kit::Frame;
using kit::FrameSize;

constexpr int kMost = 130;
constexpr int kPaddings[] = {0, 1, 65};
const int kHeightStep = isSlow() ? 13 : 1;

/** Writes a frame into the first rows of a buffer. */
void put(const host::Buffer& buffer, const Bytes& frame, FrameSize size) {
    const auto width = static_cast<size_t>(size.width);
    const auto height = static_cast<uint32_t>(size.height);
    for (uint32_t y = 0; y < size.rows(); ++y) {
        uint8_t* const row = y < height ? buffer.lumaRow(y) : buffer.chromaRow(y - height);
        std::copy_n(&frame[y * width], width, row);
    }
}

size_t wholePages(const host::Buffer& buffer) {
    return (buffer.size() + kPage - 1) / kPage * kPage;
}

class PixelsTest : public testing::TestWithParam<bool> {
protected:
    /** All noise. Frames in it may be lower than it is. */
    host::Buffer bufferOf(FrameSize size, int padding, int chromaPadding, bool crFirst) const {
        const auto stride = static_cast<uint32_t>(size.width + padding);
        const auto chromaStride = static_cast<uint32_t>((size.width + 1) / 2 * 2 + chromaPadding);
        host::Buffer buffer = kit::allocate(
            size, {0, 0, stride, chromaStride,
                   crFirst ? host::ChromaOrder::CrFirst : host::ChromaOrder::CbFirst});
        cover(buffer);
        return buffer;
    }
    void cover(const host::Buffer& buffer) const {
        std::copy_n(noise.data(), wholePages(buffer), buffer.bytes());
    }
    static sp<GraphicBuffer> wrapAs(FrameSize size, const host::Buffer& buffer) {
        return new GraphicBuffer(buffer.handle(), GraphicBuffer::CLONE_HANDLE,
                                 static_cast<uint32_t>(size.width),
                                 static_cast<uint32_t>(size.height), 35, 1, 0x33, 0);
    }
    /** The frame as it is in a buffer, in guarded memory up to its last byte. */
    zoru_ycbcr recordOf(const host::Buffer& image, FrameSize size, bool atEnd) const {
        const auto rows = static_cast<uint32_t>(size.height);
        const uint8_t* const last = rows < 2 ? image.lumaRow(0) : image.chromaRow(rows / 2 - 1);
        const auto bytes = static_cast<size_t>(last + size.width - image.bytes());
        zoru_ycbcr record(guarded.place(bytes, atEnd), size.width, size.height);
        auto* const memory = std::copy_n(image.bytes(), bytes, static_cast<uint8_t*>(record.y));
        uint8_t* const chroma = memory - (last + size.width - image.chromaRow(0));
        record.cb = chroma + (isCrFirst ? 1 : 0);
        record.cr = chroma + (isCrFirst ? 0 : 1);
        record.ystride = image.geometry().stride;
        record.cstride = image.geometry().chromaStride;
        return record;
    }
    void copiesAndTurns(const host::Buffer& target, const host::Buffer& image, FrameSize size,
                        bool atEnd) const;
    void appends(zoru_ycbcr record, FrameSize size, const Bytes& frame) const;

    const bool isCrFirst = GetParam();
    const Bytes noise = kit::patternOf({2, kRoom / 3}, 3);
    const Bytes frames = kit::patternOf({kMost, kMost});
    const Guarded guarded;
    const host::UniqueFd file{memfd_create("frames", MFD_CLOEXEC)};
    /** Larger than every frame, and in the other order. */
    const FrameSize sourceSize = {kMost + 1, kMost + 2};
    const host::Buffer source = bufferOf(sourceSize, 7, 9, !isCrFirst);
    const sp<GraphicBuffer> wrappedSource = wrapAs(sourceSize, source);
};

void PixelsTest::copiesAndTurns(const host::Buffer& target, const host::Buffer& image,
                                FrameSize size, bool atEnd) const {
    const Bytes frame(frames.begin(), frames.begin() + static_cast<std::ptrdiff_t>(size.bytes()));
    const sp<GraphicBuffer> wrapped = wrapAs(size, target);
    cover(image);
    put(image, frame, size);
    const auto arrives = [&](int status) {
        const bool isSame =
            std::equal(image.bytes(), image.bytes() + wholePages(image), target.bytes());
        cover(target);
        return status == 0 && isSame;
    };
    uint8_t* const packed = guarded.place(frame.size(), atEnd);
    std::copy(frame.begin(), frame.end(), packed);
    ASSERT_TRUE(arrives(ZoruUtil::copyTo(packed, wrapped)));
    put(source, frame, size);
    ASSERT_TRUE(arrives(ZoruUtil::copy(wrapped, wrappedSource)));
    ASSERT_EQ(ZoruUtil::copy(wrappedSource, wrapped), -1);  // it is smaller
    zoru_ycbcr record = recordOf(image, size, atEnd);
    appends(record, size, frame);
    // The claim is larger in one direction and smaller in the other.
    record.width = kMost + 1 - size.width;
    record.height = size.width;
    ASSERT_TRUE(arrives(ZoruUtil::copy(wrapped, record)));

    put(target, frame, size);
    Bytes memory = noise;
    std::copy(noise.begin(), noise.end(), guarded.begin());
    std::copy(frame.begin(), frame.end(), memory.begin() + (packed - guarded.begin()));
    ASSERT_EQ(ZoruUtil::copyFrom(packed, wrapped), 0);
    ASSERT_TRUE(std::equal(memory.begin(), memory.end(), guarded.begin()));
    rotate180(wrapped);
    put(image, kit::turnedBy180(frame, size), size);
    ASSERT_TRUE(arrives(0));
}

/** Often to a file of larger frames, in which the rest stays 0. */
void PixelsTest::appends(zoru_ycbcr record, FrameSize size, const Bytes& frame) const {
    const FrameSize whole = {size.width + size.height % 2, size.height + size.width % 2};
    const std::string path = "/proc/self/fd/" + std::to_string(file.get());
    const int bytes = whole.width * whole.height * 3 / 2;
    Bytes expected = frame;
    expected.resize(static_cast<size_t>(bytes));
    ASSERT_EQ(YUVFile(path.c_str(), whole.width, whole.height).putFrame(record), bytes);
    Bytes written(kRoom);
    ASSERT_EQ(pread(file.get(), written.data(), written.size(), 0), bytes);
    ASSERT_TRUE(std::equal(expected.begin(), expected.end(), written.begin()));
}

}  // namespace

TEST_P(PixelsTest, AreCopiedAndTurnedAndAppendedWithinTheirBounds) {
    for (int width = 1; width <= kMost; ++width) {
        for (const int padding : kPaddings) {
            const host::Buffer target = bufferOf({width, kMost}, padding, 66 - padding, isCrFirst);
            const host::Buffer image = bufferOf({width, kMost}, padding, 66 - padding, isCrFirst);
            for (int height = 1; height <= kMost; height += kHeightStep) {
                copiesAndTurns(target, image, {width, height}, (height + padding) % 2 == 0);
                ASSERT_FALSE(HasFatalFailure()) << width << " x " << height << " + " << padding;
            }
        }
    }
}

INSTANTIATE_TEST_SUITE_P(CrFirst, PixelsTest, testing::Bool());

struct FrameCopyTest : public testing::Test {
    void fails(int result, const std::string& line) {
        EXPECT_EQ(result, -1);
        EXPECT_EQ(log.take("zoruutil"), Lines{line});
    }
    static sp<GraphicBuffer> bufferOf(uint32_t width, uint32_t height, uint32_t chromaStep = 2) {
        return wrap(allocate(width, height, {0, 0, 0, 0, host::ChromaOrder::CbFirst, chromaStep}));
    }

    LogLines log;
    const sp<GraphicBuffer> good = bufferOf(8, 4);
    std::vector<uint8_t> memory = std::vector<uint8_t>(128 * 32 * 2);
    zoru_ycbcr frame{memory.data(), 8, 4};
};

TEST_F(FrameCopyTest, TellsWhyAFrameIsNotCopied) {
    const host::MapperCounters before = host::mapperCounters();
    const sp<GraphicBuffer> planar = bufferOf(8, 4, 1);
    const sp<GraphicBuffer> wide = bufferOf(8, 4, 4);
    const sp<GraphicBuffer> closed = wrap(allocate(8, 4), 0);  // no processor usage
    const std::string unhandled = "E 420 planar format is not handled \n";
    fails(ZoruUtil::copyTo(nullptr, good), "E Invalid params: buffer((nil)) \n");
    fails(ZoruUtil::copyTo(memory.data(), planar), unhandled);
    fails(ZoruUtil::copy(good, planar), unhandled);
    fails(ZoruUtil::copy(wide, good), unhandled);
    fails(ZoruUtil::copy(planar, frame), unhandled);
    frame.chroma_step = 1;
    fails(ZoruUtil::copy(good, frame), unhandled);
    for (const auto& [width, height] : {std::pair(4U, 4U), {8U, 2U}})
        fails(ZoruUtil::copy(good, bufferOf(width, height)),
              "E source is smaller: width(" + std::to_string(width) + ") height(" +
                  std::to_string(height) + "), not width(8) height(4) \n");
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
    frame.chroma_step = 2;
    host::failNextUnlock(-8);
    fails(ZoruUtil::copyFrom(memory.data(), good), "E unlock failed, error (-8) \n");
    host::failNextUnlock(-8);
    fails(ZoruUtil::copyTo(memory.data(), good), "E unlock failed, error(-8) \n");
    host::failNextUnlock(-8);
    EXPECT_EQ(ZoruUtil::copy(good, good), 0);
    host::failNextUnlock(-8);
    EXPECT_EQ(ZoruUtil::copy(good, frame), 0);
    // No buffer stays locked, and none is unlocked in vain.
    const host::MapperCounters now = host::mapperCounters();
    EXPECT_EQ(now.locks - before.locks, now.unlocks - before.unlocks);
    EXPECT_EQ(now.refusals - before.refusals, 5);
}

TEST_F(FrameCopyTest, RefusesAFrameWithoutAddresses) {
    const std::string invalid = "E copy:372: Invalid args \n";
    fails(ZoruUtil::copy(nullptr, frame), invalid);
    for (void** const plane : {&frame.y, &frame.cb, &frame.cr}) {
        void* const kept = std::exchange(*plane, nullptr);
        fails(ZoruUtil::copy(good, frame), invalid);
        *plane = kept;
    }
    EXPECT_EQ(zoru_ycbcr(nullptr, 16, 16).cb, nullptr);
    // Negative, or over 32 bits.
    for (const auto& [width, height] :
         {std::pair(200, -100), {-200, -100}, {65536, 65536}, {INT32_MAX, 1}}) {
        const zoru_ycbcr impossible(memory.data(), width, height);
        EXPECT_TRUE(impossible.cb == nullptr && impossible.cr == nullptr);
    }
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
