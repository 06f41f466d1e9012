// What moves and turns pixels, over all small sizes, strides and chroma orders, against a plain
// reference. Packed memory lies against a page that cannot be touched, once before it and once
// behind it; of a buffer every byte is compared, to the end of its last page.

#include <sys/mman.h>
#include <unistd.h>

#include <algorithm>
#include <string>

#include "Rotate180.h"
#include "YUVFile.h"
#include "ZoruUtil.h"
#include "host/unique_fd.h"
#include "support/guarded.h"
#include "support/session_fixture.h"

namespace testing_support {

namespace {

using kit::FrameSize;

constexpr int kMost = 130;
const int kHeightStep = IS_SLOW ? 13 : 1;

/** Writes a frame into the first rows of a buffer. */
void put(const host::Buffer& buffer, const kit::Frame& frame, FrameSize size) {
    const auto height = static_cast<uint32_t>(size.height);
    const uint8_t* row = frame.data();
    for (uint32_t y = 0; y < size.rows(); ++y, row += size.width)
        std::copy_n(row, size.width, y < height ? buffer.lumaRow(y) : buffer.chromaRow(y - height));
}

size_t wholePages(const host::Buffer& buffer) {
    return (buffer.size() + kPage - 1) / kPage * kPage;
}

struct PixelsTest : public testing::TestWithParam<bool> {
    /** All noise. Frames in it may be lower than it is. */
    host::Buffer bufferOf(FrameSize size, int padding, int chromaPadding, bool crFirst) const {
        const auto stride = static_cast<uint32_t>(size.width + padding);
        const auto chromaStride = static_cast<uint32_t>((size.width + 1) / 2 * 2 + chromaPadding);
        const auto order = crFirst ? host::ChromaOrder::CrFirst : host::ChromaOrder::CbFirst;
        host::Buffer buffer = kit::allocate(size, {0, 0, stride, chromaStride, order});
        cover(buffer);
        return buffer;
    }
    void cover(const host::Buffer& buffer) const {
        std::copy_n(noise.data(), wholePages(buffer), buffer.bytes());
    }
    /** The frame as it is in a buffer, in guarded memory up to its last byte. */
    zoru_ycbcr recordOf(const host::Buffer& image, FrameSize size, bool atEnd) const {
        const auto rows = static_cast<uint32_t>(size.height);
        const uint8_t* const last = rows < 2 ? image.lumaRow(0) : image.chromaRow(rows / 2 - 1);
        const auto bytes = static_cast<size_t>(last + size.width - image.bytes());
        uint8_t* const at = guarded.place(bytes, atEnd);
        std::copy_n(image.bytes(), bytes, at);
        zoru_ycbcr record(at, size.width, size.height);
        record.cb = at + (image.chromaRow(0) - image.bytes()) + (isCrFirst ? 1 : 0);
        record.cr = at + (image.chromaRow(0) - image.bytes()) + (isCrFirst ? 0 : 1);
        record.ystride = image.geometry().stride;
        record.cstride = image.geometry().chromaStride;
        return record;
    }
    void movesWithin(const host::Buffer& target, const host::Buffer& image, FrameSize size,
                     bool atEnd) const {
        const kit::Frame frame(frames.data(), frames.data() + size.bytes());
        const sp<GraphicBuffer> wrapped = wrap(target);
        wrapped->height = size.height;
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
        zoru_ycbcr record = recordOf(image, size, atEnd);
        // Appended to a file of frames that are often larger, in which the rest stays 0.
        const FrameSize whole = {size.width + size.height % 2, size.height + size.width % 2};
        const std::string path = "/proc/self/fd/" + std::to_string(file.get());
        const int bytes = whole.width * whole.height * 3 / 2;
        kit::Frame expected = frame;
        expected.resize(static_cast<size_t>(bytes) + 1);
        ASSERT_EQ(YUVFile(path.c_str(), whole.width, whole.height).putFrame(record), bytes);
        kit::Frame written(expected.size());
        ASSERT_EQ(pread(file.get(), written.data(), written.size(), 0), bytes);
        ASSERT_TRUE(written == expected);
        // The claim is larger in one direction and smaller in the other.
        record.width = kMost + 1 - size.width;
        record.height = size.width;
        ASSERT_TRUE(arrives(ZoruUtil::copy(wrapped, record)));

        put(target, frame, size);
        kit::Frame memory = noise;
        std::copy(noise.begin(), noise.end(), guarded.begin);
        std::copy(frame.begin(), frame.end(), memory.begin() + (packed - guarded.begin));
        ASSERT_EQ(ZoruUtil::copyFrom(packed, wrapped), 0);
        ASSERT_TRUE(std::equal(memory.begin(), memory.end(), guarded.begin));
        rotate180(wrapped);
        put(image, kit::turnedBy180(frame, size), size);
        ASSERT_TRUE(arrives(0));
    }

    const bool isCrFirst = GetParam();
    const kit::Frame noise = kit::patternOf({2, kRoom / 3}, 3);
    const kit::Frame frames = kit::patternOf({kMost, kMost});
    const Guarded guarded;
    const host::UniqueFd file{memfd_create("frames", MFD_CLOEXEC)};
    /** Larger than every frame, and in the other order. */
    const host::Buffer source = bufferOf({kMost + 1, kMost + 2}, 7, 9, !isCrFirst);
    const sp<GraphicBuffer> wrappedSource = wrap(source);
};

}  // namespace

TEST_P(PixelsTest, AreCopiedAndTurnedAndAppendedWithinTheirBounds) {
    for (int width = 1; width <= kMost; ++width) {
        for (const int padding : {0, 1, 65}) {
            const host::Buffer target = bufferOf({width, kMost}, padding, 66 - padding, isCrFirst);
            const host::Buffer image = bufferOf({width, kMost}, padding, 66 - padding, isCrFirst);
            for (int height = 1; height <= kMost; height += kHeightStep) {
                movesWithin(target, image, {width, height}, (height + padding) % 2 == 0);
                ASSERT_FALSE(HasFatalFailure()) << width << " x " << height << " + " << padding;
            }
        }
    }
}

INSTANTIATE_TEST_SUITE_P(CrFirst, PixelsTest, testing::Bool());

}  // namespace testing_support
