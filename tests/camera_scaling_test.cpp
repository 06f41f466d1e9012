// How pictures get into a client's planes: every size, every order of chroma, with a page behind
// each plane that cannot be touched.

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <string>

#include "source/picture_scaler.h"
#include "support/clip_writer.h"
#include "support/guarded.h"
#include "support/slow.h"

namespace testing_support {

using camera::FrameSize;
using camera::PictureShape;
using camera::Planes;

namespace {

constexpr int kMost = 130;

enum Order { CB_FIRST, CR_FIRST, PLANAR };

Colour at(const Planes& planes, int x, int y) {
    const ptrdiff_t chroma =
        ptrdiff_t{y / 2} * planes.chromaStride + x / 2 * static_cast<ptrdiff_t>(planes.chromaStep);
    return {planes.luma[y * planes.lumaStride + x], planes.cb[chroma], planes.cr[chroma]};
}

/** How far the sample is off that is farthest from this colour. */
int farthest(const Planes& planes, const Colour& colour) {
    int most = 0;
    for (int y = 0; y < planes.size.height; ++y) {
        for (int x = 0; x < planes.size.width; ++x) {
            const Colour there = at(planes, x, y);
            most = std::max({most, std::abs(there.y - colour.y), std::abs(there.cb - colour.cb),
                             std::abs(there.cr - colour.cr)});
        }
    }
    return most;
}

bool scale(camera::PictureScaler& scaler, const AVFrame& frame, const Planes& to,
           const camera::Orientation& orientation = {}) {
    const FrameSize size = {frame.width, frame.height};
    const PictureShape shape = {size, size, orientation};
    const FrameSize picture = shape.picture();
    return scaler.scale(frame, shape, {0, 0, picture.width, picture.height}, to);
}

/** Its client's planes are guarded, and have the tightest strides that a buffer may have. */
class CameraScalingTest : public testing::TestWithParam<Order> {
protected:
    /** Cleared. */
    Planes planes(FrameSize size) const {
        const int pairs = (size.width + 1) / 2;
        const size_t bytes =
            static_cast<size_t>(pairs) * ((static_cast<size_t>(size.height) + 1) / 2);
        uint8_t* const luma = last(mLuma, size.lumaBytes());
        if (GetParam() == PLANAR)
            return {size, luma, size.width, last(mChroma, bytes), last(mOther, bytes), pairs, 1};
        uint8_t* const first = last(mChroma, 2 * bytes);
        return GetParam() == CB_FIRST
                   ? Planes{size, luma, size.width, first, first + 1, 2 * pairs, 2}
                   : Planes{size, luma, size.width, first + 1, first, 2 * pairs, 2};
    }

private:
    static uint8_t* last(const Guarded& memory, size_t bytes) {
        uint8_t* const place = memory.place(bytes, true);
        std::fill_n(place, bytes, uint8_t{0});
        return place;
    }

    const Guarded mLuma, mChroma, mOther;
};

}  // namespace

TEST_P(CameraScalingTest, FillsEverySizeAndTouchesNothingElse) {
    constexpr AVPixelFormat kFormats[] = {AV_PIX_FMT_YUV420P, AV_PIX_FMT_NV12, AV_PIX_FMT_NV21};
    const Colour colour = {200, 40, 220};
    // Full range: 16 + y * 219 / 255, and the chroma by 224 / 255 about 128.
    const Colour limited = {188, 51, 209};
    camera::PictureScaler scalers[3];
    for (int width = 1; width <= kMost; width += isSlow() ? 7 : 1) {
        const bool isFull = width % 2 == 0;
        const auto range = isFull ? AVCOL_RANGE_JPEG : AVCOL_RANGE_MPEG;
        const auto other = frameOf({50, 38}, kFormats[width % 3], colour, range);
        for (int height = 1; height <= kMost; height += isSlow() ? 13 : 1) {
            // Of another size, turned, and as it is, in a format that it shares with the planes.
            const auto same = frameOf({width, height}, kFormats[height % 3], colour, range);
            const AVFrame* const frames[] = {other.get(), other.get(), same.get()};
            for (int way = 0; way < 3; ++way) {
                const Planes to = planes({width, height});
                const camera::Orientation turn = {way == 1, way == 1 ? 1 + height % 3 : 0};
                ASSERT_TRUE(scale(scalers[way], *frames[way], to, turn));
                ASSERT_LE(farthest(to, isFull ? limited : colour), 1)
                    << width << 'x' << height << " way " << way;
            }
        }
    }
}

TEST_P(CameraScalingTest, IsOfLimitedRangeWhateverThePictureIs) {
    const struct {
        AVPixelFormat format;
        Colour colour, shown;
    } pictures[] = {{AV_PIX_FMT_GRAY8, {200}, {188, 128, 128}},
                    {AV_PIX_FMT_YUVJ420P, {200, 40, 220}, {188, 51, 209}},
                    {AV_PIX_FMT_YUV420P, {200, 40, 220}, {200, 40, 220}},
                    {AV_PIX_FMT_MONOBLACK, {255}, {235, 128, 128}},   // cannot be cropped
                    {AV_PIX_FMT_BGR32, {255, 0, 0}, {81, 90, 240}}};  // red, by BT.601
    camera::PictureScaler scaler;
    for (const int width : {8, 32, 40}) {
        for (const auto& [format, colour, shown] : pictures) {
            const bool isLimited = format == AV_PIX_FMT_YUV420P;
            const auto range = isLimited ? AVCOL_RANGE_MPEG : AVCOL_RANGE_JPEG;
            const Planes to = planes({width, 32});
            ASSERT_TRUE(scale(scaler, *frameOf({40, 32}, format, colour, range), to));
            EXPECT_LE(farthest(to, shown), 1) << format << ' ' << width;
        }
    }
}

TEST_P(CameraScalingTest, TurnsAsItIsTold) {
    // Four quarters, each of a luma of its own: 0 1 / 2 3.
    const auto frame = frameOf({64, 32}, AV_PIX_FMT_YUV420P, {0, 128, 128});
    for (int y = 0; y < 32; ++y)
        for (int x = 0; x < 64; ++x)
            frame->data[0][y * frame->linesize[0] + x] =
                static_cast<uint8_t>(50 * (1 + x / 32 + 2 * (y / 16)));
    frame->sample_aspect_ratio = {1, 2};
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
        av_frame_remove_side_data(frame.get(), AV_FRAME_DATA_DISPLAYMATRIX);
        memcpy(
            av_frame_new_side_data(frame.get(), AV_FRAME_DATA_DISPLAYMATRIX, sizeof(matrix))->data,
            matrix, sizeof(matrix));
        const PictureShape shape = camera::shapeOf(*frame, nullptr);
        EXPECT_EQ(shape.squared.height, 64);
        const camera::Orientation orientation = shape.orientation;
        camera::PictureScaler scaler;
        const FrameSize size = orientation.turned({64, 32});
        const Planes to = planes(size);
        ASSERT_TRUE(scale(scaler, *frame, to, orientation));
        std::string seen;
        for (const int y : {size.height / 4, size.height * 3 / 4})
            for (const int x : {size.width / 4, size.width * 3 / 4})
                seen += static_cast<char>('0' + at(to, x, y).y / 50 - 1);
        EXPECT_EQ(seen, c.seen);
        // The upper left quarter of what is seen.
        ASSERT_TRUE(scaler.scale(*frame, {{64, 32}, {64, 32}, orientation},
                                 {0, 0, size.width / 2, size.height / 2}, to));
        EXPECT_NEAR(at(to, size.width / 2, size.height / 2).y, 50 * (c.seen[0] - '0' + 1), 1);
    }
}

INSTANTIATE_TEST_SUITE_P(Order, CameraScalingTest, testing::Values(CB_FIRST, CR_FIRST, PLANAR));

}  // namespace testing_support
