// How pictures get into a client's planes: every size, every order of chroma, with a page behind
// each plane that cannot be touched.

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdlib>
#include <optional>
#include <string>
#include <vector>

#include "source/picture_scaler.h"
#include "support/guarded.h"
#include "support/slow.h"

namespace testing_support {

using camera::FrameSize;
using camera::PictureShape;
using camera::Planes;

namespace {

constexpr int kMost = 130;

/** Cleared, against the page behind it. */
uint8_t* last(const Guarded& memory, size_t bytes) {
    uint8_t* const place = memory.place(bytes, true);
    std::fill_n(place, bytes, uint8_t{0});
    return place;
}

enum Order { CB_FIRST, CR_FIRST, PLANAR };

struct Colour {
    int y, cb, cr;
};

/** A frame of one colour, with other ones where asked for. */
camera::FramePtr frameOf(FrameSize size, AVPixelFormat format, const Colour& colour,
                         AVColorRange range = AVCOL_RANGE_MPEG) {
    camera::FramePtr frame(av_frame_alloc());
    frame->width = size.width;
    frame->height = size.height;
    frame->format = format;
    frame->color_range = range;
    EXPECT_EQ(av_frame_get_buffer(frame.get(), 0), 0);
    const int rows = (size.height + 1) / 2;
    const auto fill = [&](int plane, int height, int even, int odd) {
        for (int i = 0; i < frame->linesize[plane] * height; ++i)
            frame->data[plane][i] = static_cast<uint8_t>(i % 2 == 0 ? even : odd);
    };
    fill(0, size.height, colour.y, colour.y);
    if (format == AV_PIX_FMT_GRAY8) return frame;
    if (format == AV_PIX_FMT_NV12) fill(1, rows, colour.cb, colour.cr);
    if (format == AV_PIX_FMT_NV21) fill(1, rows, colour.cr, colour.cb);
    if (format != AV_PIX_FMT_YUV420P) return frame;
    fill(1, rows, colour.cb, colour.cb);
    fill(2, rows, colour.cr, colour.cr);
    return frame;
}

/** A client's frame in guarded planes, at the tightest strides that a buffer may have. */
class Target {
public:
    Planes planes(FrameSize size, Order order) const {
        const int pairs = (size.width + 1) / 2;
        const int rows = (size.height + 1) / 2;
        const auto bytes = static_cast<size_t>(pairs) * static_cast<size_t>(rows);
        Planes planes = {size,  last(mLuma, size.lumaBytes()), size.width, nullptr, nullptr,
                         pairs, order == PLANAR ? 1U : 2U};
        if (order == PLANAR) {
            planes.cb = last(mChroma, bytes);
            planes.cr = last(mOther, bytes);
            return planes;
        }
        planes.chromaStride = 2 * pairs;
        uint8_t* const first = last(mChroma, 2 * bytes);
        planes.cb = order == CB_FIRST ? first : first + 1;
        planes.cr = order == CB_FIRST ? first + 1 : first;
        return planes;
    }

private:
    const Guarded mLuma, mChroma, mOther;
};

Colour at(const Planes& planes, int x, int y) {
    const ptrdiff_t chroma =
        ptrdiff_t{y / 2} * planes.chromaStride + x / 2 * static_cast<ptrdiff_t>(planes.chromaStep);
    return {planes.luma[y * planes.lumaStride + x], planes.cb[chroma], planes.cr[chroma]};
}

bool isNear(const Colour& a, const Colour& b, int tolerance = 1) {
    return std::abs(a.y - b.y) <= tolerance && std::abs(a.cb - b.cb) <= tolerance &&
           std::abs(a.cr - b.cr) <= tolerance;
}

/** The first place that is not of this colour; empty when there is none. */
std::string unlike(const Planes& planes, const Colour& colour) {
    for (int y = 0; y < planes.size.height; ++y) {
        for (int x = 0; x < planes.size.width; ++x) {
            const Colour there = at(planes, x, y);
            if (isNear(there, colour)) continue;
            return std::to_string(planes.size.width) + 'x' + std::to_string(planes.size.height) +
                   " step " + std::to_string(planes.chromaStep) + " at " + std::to_string(x) + ',' +
                   std::to_string(y) + ": " + std::to_string(there.y) + ' ' +
                   std::to_string(there.cb) + ' ' + std::to_string(there.cr);
        }
    }
    return {};
}

bool scale(camera::PictureScaler& scaler, const AVFrame& frame, const Planes& to,
           const camera::Orientation& orientation = {}) {
    const FrameSize size = {frame.width, frame.height};
    const PictureShape shape = {size, size, orientation};
    const FrameSize picture = shape.picture();
    return scaler.scale(frame, shape, {0, 0, picture.width, picture.height}, to);
}

constexpr Colour kColour = {90, 60, 200};

}  // namespace

class CameraScalingTest : public testing::TestWithParam<Order> {
protected:
    const Target target{};
};

TEST_P(CameraScalingTest, FillsEverySizeAndTouchesNothingElse) {
    camera::PictureScaler scalers[3];
    const auto other = frameOf({50, 38}, AV_PIX_FMT_YUV420P, kColour);
    for (int width = 1; width <= kMost; width += isSlow() ? 7 : 1) {
        for (int height = 1; height <= kMost; height += isSlow() ? 13 : 1) {
            const Planes planes = target.planes({width, height}, GetParam());
            ASSERT_TRUE(scale(scalers[0], *other, planes));
            ASSERT_EQ(unlike(planes, kColour), "");
            target.planes({width, height}, GetParam());  // cleared
            ASSERT_TRUE(scale(scalers[1], *other, planes, {true, 1 + height % 3}));
            ASSERT_EQ(unlike(planes, kColour), "") << "turned";
            // Of the same size, and in a format that it shares with the planes.
            const auto format = height % 3 == 0   ? AV_PIX_FMT_YUV420P
                                : height % 3 == 1 ? AV_PIX_FMT_NV12
                                                  : AV_PIX_FMT_NV21;
            target.planes({width, height}, GetParam());
            ASSERT_TRUE(scale(scalers[2], *frameOf({width, height}, format, kColour), planes));
            ASSERT_EQ(unlike(planes, kColour), "") << "same size, format " << format;
        }
    }
}

TEST_P(CameraScalingTest, IsOfLimitedRangeWhateverThePictureIs) {
    // Full range: 16 + y * 219 / 255, and the chroma by 224 / 255 about 128.
    const Colour full = {200, 40, 220};
    const Colour limited = {188, 51, 209};
    for (const FrameSize size : {FrameSize{64, 48}, FrameSize{80, 48}, FrameSize{8, 48}}) {
        for (const AVPixelFormat format :
             {AV_PIX_FMT_YUV420P, AV_PIX_FMT_NV12, AV_PIX_FMT_NV21, AV_PIX_FMT_GRAY8}) {
            camera::PictureScaler scaler;
            const Planes planes = target.planes(size, GetParam());
            const auto frame = frameOf({64, 48}, format, full, AVCOL_RANGE_JPEG);
            ASSERT_TRUE(scale(scaler, *frame, planes));
            const bool isGray = format == AV_PIX_FMT_GRAY8;
            EXPECT_EQ(unlike(planes, isGray ? Colour{188, 128, 128} : limited), "") << format;
        }
    }
    // And black and white, whose format cannot be cropped as it is.
    camera::PictureScaler scaler;
    const Planes planes = target.planes({32, 32}, GetParam());
    const auto white = frameOf({40, 40}, AV_PIX_FMT_MONOBLACK, {255, 0, 0});
    ASSERT_TRUE(scale(scaler, *white, planes));
    EXPECT_EQ(unlike(planes, {235, 128, 128}), "");
    const auto red = frameOf({16, 40}, AV_PIX_FMT_BGR32, {0, 0, 0});
    for (int i = 0; i < red->linesize[0] * 40; i += 4)
        red->data[0][i] = 255;  // the others are 0
    ASSERT_TRUE(scale(scaler, *red, planes));
    EXPECT_EQ(unlike(planes, {81, 90, 240}), "");  // by BT.601
}

TEST_P(CameraScalingTest, TurnsAsItIsTold) {
    // Four quarters, each of a luma of its own: 0 1 / 2 3.
    const auto frame = frameOf({64, 32}, AV_PIX_FMT_YUV420P, {0, 128, 128});
    for (int y = 0; y < 32; ++y)
        for (int x = 0; x < 64; ++x)
            frame->data[0][y * frame->linesize[0] + x] =
                static_cast<uint8_t>(50 * (1 + x / 32 + 2 * (y / 16)));
    // Display matrices, and what is upper left, upper right, lower left and lower right then.
    const struct {
        int32_t a, b, c, d;
        const char* seen;
    } cases[] = {{1, 0, 0, 1, "0123"},  {0, 1, -1, 0, "2031"}, {-1, 0, 0, -1, "3210"},
                 {0, -1, 1, 0, "1302"}, {-1, 0, 0, 1, "1032"}, {1, 0, 0, -1, "2301"},
                 {0, 1, 1, 0, "0213"},  {0, -1, -1, 0, "3120"}};
    for (const auto& c : cases) {
        const int32_t matrix[9] = {c.a * 65536, c.b * 65536, 0, c.c * 65536, c.d * 65536,
                                   0,           0,           0, 1 << 30};
        const camera::Orientation orientation = camera::orientationOf(matrix);
        camera::PictureScaler scaler;
        const FrameSize size = orientation.turned({64, 32});
        const Planes planes = target.planes(size, GetParam());
        ASSERT_TRUE(scale(scaler, *frame, planes, orientation));
        std::string seen;
        for (const int y : {size.height / 4, size.height * 3 / 4})
            for (const int x : {size.width / 4, size.width * 3 / 4})
                seen += static_cast<char>('0' + at(planes, x, y).y / 50 - 1);
        EXPECT_EQ(seen, c.seen);
        // The upper left quarter of what is seen.
        ASSERT_TRUE(scaler.scale(*frame, {{64, 32}, {64, 32}, orientation},
                                 {0, 0, size.width / 2, size.height / 2}, planes));
        const Colour middle = at(planes, size.width / 2, size.height / 2);
        EXPECT_NEAR(middle.y, 50 * (c.seen[0] - '0' + 1), 1);
    }
}

INSTANTIATE_TEST_SUITE_P(Order, CameraScalingTest, testing::Values(CB_FIRST, CR_FIRST, PLANAR));

}  // namespace testing_support
