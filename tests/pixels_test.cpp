// What moves and turns pixels, over all small sizes, strides and chroma orders, against a plain
// reference. Packed memory lies against a page that cannot be touched, once before it and once
// behind it; of a buffer every byte is compared, to the end of its last page.

#include <gtest/gtest.h>
#include <sys/mman.h>
#include <unistd.h>

#include <algorithm>
#include <string>
#include <vector>

#include "Rotate180.h"
#include "YUVFile.h"
#include "ZoruUtil.h"
#include "host/unique_fd.h"
#include "support/guarded.h"
#include "support/session_fixture.h"
#include "support/slow.h"

namespace testing_support {

namespace {

using Bytes = std::vector<uint8_t>;
using kit::FrameSize;

constexpr int kMost = 130;
constexpr int kPaddings[] = {0, 1, 65};
const int kHeightStep = isSlow() ? 13 : 1;

struct Planes {
    uint8_t* luma;
    size_t stride;
    uint8_t* chroma;
    size_t chromaStride;
};

void copyPlainly(const Planes& to, const Planes& from, FrameSize size) {
    const auto width = static_cast<size_t>(size.width);
    const auto height = static_cast<size_t>(size.height);
    for (size_t y = 0; y < height; ++y)
        std::copy_n(from.luma + y * from.stride, width, to.luma + y * to.stride);
    for (size_t y = 0; y < height / 2; ++y)
        std::copy_n(from.chroma + y * from.chromaStride, width, to.chroma + y * to.chromaStride);
}

Planes packedAt(uint8_t* memory, FrameSize size) {
    const auto width = static_cast<size_t>(size.width);
    return {memory, width, memory + size.lumaBytes(), width};
}

/** A buffer whose every byte is watched. Frames in it may be lower than it is. */
struct Watched {
    Watched(FrameSize size, int padding, int chromaPadding, host::ChromaOrder order)
        : buffer(kit::allocate(
              size, {0, 0, static_cast<uint32_t>(size.width + padding),
                     static_cast<uint32_t>((size.width + 1) / 2 * 2 + chromaPadding), order})),
          bytes((buffer.size() + kPage - 1) / kPage * kPage) {}

    sp<GraphicBuffer> wrapped(FrameSize size) const {
        return new GraphicBuffer(buffer.handle(), GraphicBuffer::CLONE_HANDLE,
                                 static_cast<uint32_t>(size.width),
                                 static_cast<uint32_t>(size.height), 35, 1, 0x33, 0);
    }
    Planes planesIn(uint8_t* memory) const {
        return {memory, buffer.geometry().stride, memory + (buffer.chromaRow(0) - buffer.bytes()),
                buffer.geometry().chromaStride};
    }
    void fill(const Bytes& noise) const { std::copy_n(noise.data(), bytes, buffer.bytes()); }
    bool holds(const Bytes& expected) const {
        return std::equal(expected.data(), expected.data() + bytes, buffer.bytes());
    }

    host::Buffer buffer;
    size_t bytes;
};

class PixelsTest : public testing::TestWithParam<host::ChromaOrder> {
protected:
    /** The noise with a frame where the buffer has it. */
    Bytes imageOf(const Watched& watched, Bytes& frame, FrameSize size) const {
        Bytes image(noise.begin(), noise.begin() + static_cast<std::ptrdiff_t>(watched.bytes));
        copyPlainly(watched.planesIn(image.data()), packedAt(frame.data(), size), size);
        return image;
    }
    /** The frame in guarded memory at these strides, in a record that claims another size. */
    zoru_ycbcr recordOf(Bytes& frame, FrameSize size, size_t stride, size_t chromaStride,
                        bool atEnd, FrameSize claimed) const {
        const auto width = static_cast<size_t>(size.width);
        const auto rows = static_cast<size_t>(size.height);
        const size_t luma = stride * (rows - 1) + width;
        const size_t chroma = rows < 2 ? 0 : chromaStride * (rows / 2 - 1) + width;
        uint8_t* const memory = guarded.place(luma + chroma, atEnd);
        copyPlainly({memory, stride, memory + luma, chromaStride}, packedAt(frame.data(), size),
                    size);
        zoru_ycbcr record(memory, claimed.width, claimed.height);
        record.cb = memory + luma + (crFirst ? 1 : 0);
        record.cr = memory + luma + (crFirst ? 0 : 1);
        record.ystride = stride;
        record.cstride = chromaStride;
        return record;
    }
    Bytes frameOf(FrameSize size) const {
        return {frames.begin(), frames.begin() + static_cast<std::ptrdiff_t>(size.bytes())};
    }
    void copiesAndTurns(const Watched& target, Bytes& frame, FrameSize size, bool atEnd) const;

    const bool crFirst = GetParam() == host::ChromaOrder::CrFirst;
    const Bytes noise = kit::patternOf({2, kRoom / 3}, 3);
    const Bytes frames = kit::patternOf({kMost, kMost});
    const Guarded guarded;
    /** Larger than every frame, and in the other order. */
    const FrameSize sourceSize = {kMost + 1, kMost + 2};
    const Watched source{sourceSize, 7, 9,
                         crFirst ? host::ChromaOrder::CbFirst : host::ChromaOrder::CrFirst};
    const sp<GraphicBuffer> wrappedSource = source.wrapped(sourceSize);
};

void PixelsTest::copiesAndTurns(const Watched& target, Bytes& frame, FrameSize size,
                                bool atEnd) const {
    const sp<GraphicBuffer> wrapped = target.wrapped(size);
    const Bytes image = imageOf(target, frame, size);
    const auto arrives = [&](auto copy) {
        target.fill(noise);
        return copy() == 0 && target.holds(image);
    };
    uint8_t* const packed = guarded.place(frame.size(), atEnd);
    std::copy(frame.begin(), frame.end(), packed);
    ASSERT_TRUE(arrives([&] { return ZoruUtil::copyTo(packed, wrapped); }));

    Bytes memory = noise;
    std::copy(noise.begin(), noise.end(), guarded.begin());
    std::copy(frame.begin(), frame.end(), memory.begin() + (packed - guarded.begin()));
    ASSERT_EQ(ZoruUtil::copyFrom(packed, wrapped), 0);
    ASSERT_TRUE(std::equal(memory.begin(), memory.end(), guarded.begin()));

    copyPlainly(source.planesIn(source.buffer.bytes()), packedAt(frame.data(), size), size);
    ASSERT_TRUE(arrives([&] { return ZoruUtil::copy(wrapped, wrappedSource); }));
    // The claim is larger in one direction and smaller in the other.
    zoru_ycbcr record = recordOf(frame, size, target.buffer.geometry().stride,
                                 target.buffer.geometry().chromaStride, atEnd,
                                 {kMost + 1 - size.width, size.width});
    ASSERT_TRUE(arrives([&] { return ZoruUtil::copy(wrapped, record); }));

    Bytes turned = kit::turnedBy180(frame, size);
    rotate180(wrapped);
    ASSERT_TRUE(target.holds(imageOf(target, turned, size)));
}

}  // namespace

TEST_P(PixelsTest, AreCopiedAndTurnedWithinTheirBounds) {
    for (int width = 1; width <= kMost; ++width) {
        for (const int padding : kPaddings) {
            const Watched target({width, kMost}, padding, 66 - padding, GetParam());
            for (int height = 1; height <= kMost; height += kHeightStep) {
                const FrameSize size = {width, height};
                Bytes frame = frameOf(size);
                copiesAndTurns(target, frame, size, (height + padding) % 2 == 0);
                ASSERT_FALSE(HasFatalFailure()) << width << " x " << height << " + " << padding;
            }
        }
    }
}

TEST_P(PixelsTest, AreAppendedToAFileWithinTheirBounds) {
    const host::UniqueFd memory(memfd_create("frames", MFD_CLOEXEC));
    const std::string path = "/proc/self/fd/" + std::to_string(memory.get());
    Bytes written(kRoom);
    for (int width = 1; width <= kMost; ++width) {
        for (int height = 1; height <= kMost; height += kHeightStep) {
            const FrameSize size = {width, height};
            Bytes frame = frameOf(size);
            // Often of a larger frame, whose rest stays 0.
            const FrameSize whole = {width + height % 2, height + width % 2};
            YUVFile file(path.c_str(), whole.width, whole.height);
            const int bytes = whole.width * whole.height * 3 / 2;
            Bytes expected = frame;
            expected.resize(static_cast<size_t>(bytes));
            for (const int padding : kPaddings) {
                const auto stride = static_cast<size_t>(width) + static_cast<size_t>(padding);
                zoru_ycbcr record =
                    recordOf(frame, size, stride, stride + 3, (height + padding) % 2 == 0, size);
                ASSERT_EQ(file.putFrame(record), bytes);
                const off_t offset = lseek(memory.get(), 0, SEEK_END) - bytes;
                ASSERT_EQ(pread(memory.get(), written.data(), written.size(), offset), bytes);
                ASSERT_TRUE(std::equal(expected.begin(), expected.end(), written.begin()))
                    << width << " x " << height << " + " << padding;
            }
        }
    }
}

TEST_P(PixelsTest, AreNotCopiedFromASmallerBuffer) {
    const LogLines log;
    source.fill(noise);
    for (int extent = 1; extent <= kMost; ++extent) {
        for (const FrameSize size :
             {FrameSize{extent, sourceSize.height}, FrameSize{sourceSize.width, extent + 1}}) {
            const Watched smaller(size, 0, 0, GetParam());
            ASSERT_EQ(ZoruUtil::copy(wrappedSource, smaller.wrapped(size)), -1);
            ASSERT_TRUE(source.holds(noise));
        }
    }
}

INSTANTIATE_TEST_SUITE_P(Orders, PixelsTest,
                         testing::Values(host::ChromaOrder::CbFirst, host::ChromaOrder::CrFirst),
                         [](const auto& order) {
                             return order.param == host::ChromaOrder::CbFirst ? "CbFirst"
                                                                              : "CrFirst";
                         });

}  // namespace testing_support
