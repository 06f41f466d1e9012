// How pictures get into a client's planes: every size, every order of chroma, with a page behind
// each plane that cannot be touched.

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdlib>
#include <string>
#include <tuple>

#include "source/ffmpeg.h"
#include "source/picture_scaler.h"
#include "support/guarded.h"

namespace testing_support {

using camera::FrameSize;
using camera::PictureShape;
using camera::Planes;

namespace {

constexpr int kMost = 130;

enum Order { CB_FIRST, CR_FIRST, PLANAR };

/** Or red, green and blue. */
struct Colour {
    int y, cb = 0, cr = 0;
};

/** Of one colour. */
camera::FramePtr frameOf(FrameSize size, AVPixelFormat format, const Colour& colour) {
    camera::FramePtr frame(av_frame_alloc());
    frame->width = size.width;
    frame->height = size.height;
    frame->format = format;
    EXPECT_EQ(av_frame_get_buffer(frame.get(), 0), 0);
    const AVPixFmtDescriptor& layout = *av_pix_fmt_desc_get(format);
    const int values[] = {colour.y, colour.cb, colour.cr, 0};
    for (int i = 0; i < layout.nb_components; ++i) {
        const AVComponentDescriptor& part = layout.comp[i];
        const int rows = i == 0 ? size.height : AV_CEIL_RSHIFT(size.height, layout.log2_chroma_h);
        for (int at = part.offset; at < frame->linesize[part.plane] * rows; at += part.step)
            frame->data[part.plane][at] = static_cast<uint8_t>(values[i]);
    }
    return frame;
}

/** How far the sample is off that is farthest from this colour. */
int farthest(const Planes& planes, const Colour& colour) {
    int most = 0;
    for (int y = 0; y < planes.size.height; ++y) {
        for (int x = 0; x < planes.size.width; ++x) {
            const ptrdiff_t at =
                ptrdiff_t{y / 2} * planes.chromaStride + x / 2 * int(planes.chromaStep);
            most = std::max({most, std::abs(planes.luma[y * planes.lumaStride + x] - colour.y),
                             std::abs(planes.cb[at] - colour.cb),
                             std::abs(planes.cr[at] - colour.cr)});
        }
    }
    return most;
}

/** Its client's planes are guarded, and have the tightest strides that a buffer may have. */
class CameraScalingTest : public testing::TestWithParam<Order> {
protected:
    /** Cleared. */
    Planes planes(FrameSize size) const {
        const int pairs = (size.width + 1) / 2;
        const auto bytes = static_cast<size_t>(pairs * ((size.height + 1) / 2));
        uint8_t* const luma = last(mLuma, size.lumaBytes());
        if (GetParam() == PLANAR)
            return {size, luma, size.width, last(mChroma, bytes), last(mOther, bytes), pairs, 1};
        uint8_t* const first = last(mChroma, 2 * bytes);
        const int cr = GetParam() == CB_FIRST ? 1 : 0;
        return {size, luma, size.width, first + 1 - cr, first + cr, 2 * pairs, 2};
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
    constexpr Colour kColour = {200, 40, 220};
    // Limited: 16 + y * 219 / 255, and the chroma by 224 / 255 about 128.
    constexpr Colour kShown = {188, 51, 209};
    // A format, a colour in it, and what is shown of it when it is of full range, and when not.
    const std::tuple<AVPixelFormat, Colour, Colour, Colour> pictures[] = {
        {AV_PIX_FMT_YUV420P, kColour, kShown, kColour},
        {AV_PIX_FMT_NV12, kColour, kShown, kColour},
        {AV_PIX_FMT_NV21, kColour, kShown, kColour},
        {AV_PIX_FMT_GRAY8, {200}, {188, 128, 128}, {188, 128, 128}},
        {AV_PIX_FMT_MONOBLACK, {255}, {235, 128, 128}, {235, 128, 128}},  // cannot be cropped
        {AV_PIX_FMT_BGR32, {255, 0, 0}, {81, 90, 240}, {81, 90, 240}}};   // red, by BT.601
    camera::PictureScaler scaler;
    for (int width = 1; width <= kMost; width += IS_SLOW ? 7 : 1) {
        const auto& [format, colour, full, limited] = pictures[width % 6];
        const auto other = frameOf({50, 38}, format, colour);
        for (int height = 1; height <= kMost; height += IS_SLOW ? 13 : 1) {
            // Of another size, turned, and as it is, in a format that it shares with the planes.
            const auto same = frameOf({width, height}, std::get<0>(pictures[height % 3]), kColour);
            for (int way = 0; way < 4; ++way) {
                if (way == 1 + height % 2) continue;  // it takes seconds
                AVFrame& frame = way < 3 ? *other : *same;
                const bool isFull = way < 3 ? way != 1 : width % 2 == 0;
                frame.color_range = isFull ? AVCOL_RANGE_JPEG : AVCOL_RANGE_MPEG;
                const Planes to = planes({width, height});
                const FrameSize size = {frame.width, frame.height};
                const PictureShape shape = {size, size, {way == 2, way == 2 ? 1 + height % 3 : 0}};
                const FrameSize all = shape.picture();
                ASSERT_TRUE(scaler.scale(frame, shape, {0, 0, all.width, all.height}, to));
                const Colour& shown =
                    way < 3 ? (isFull ? full : limited) : (isFull ? kShown : kColour);
                ASSERT_LE(farthest(to, shown), 1) << width << 'x' << height << " way " << way;
            }
        }
    }
}

TEST_P(CameraScalingTest, TurnsAsItIsTold) {
    // Four quarters, each of a luma of its own: 0 1 / 2 3.
    const auto frame = frameOf({64, 32}, AV_PIX_FMT_YUV420P, {0, 128, 128});
    for (int i = 0; i < 64 * 32; ++i)
        frame->data[0][i / 64 * frame->linesize[0] + i % 64] =
            static_cast<uint8_t>(50 * (1 + i % 64 / 32 + i / 1024 * 2));
    frame->sample_aspect_ratio = {1, 2};
    auto* const matrix = reinterpret_cast<int32_t*>(
        av_frame_new_side_data(frame.get(), AV_FRAME_DATA_DISPLAYMATRIX, 9 * sizeof(int32_t))
            ->data);
    // What is upper left, upper right, lower left and lower right then.
    const std::string expected[] = {"0123", "2031", "3210", "1302", "1032", "0213", "2301", "3120"};
    for (int turn = 0; turn < 8; ++turn) {
        av_display_rotation_set(matrix, turn % 4 * 90);
        av_display_matrix_flip(matrix, turn / 4, 0);
        const PictureShape shape = camera::shapeOf(*frame, nullptr);
        EXPECT_EQ(shape.squared.height, 64);
        const FrameSize size = shape.orientation.turned({64, 32});
        camera::PictureScaler scaler;
        const Planes to = planes(size);
        const auto quarter = [&](int x, int y) {
            return to.luma[size.height * y / 4 * to.lumaStride + size.width * x / 4] / 50 - 1;
        };
        const FrameSize whole = shape.picture();
        ASSERT_TRUE(scaler.scale(*frame, shape, {0, 0, whole.width, whole.height}, to));
        for (const int i : {0, 1, 2, 3})
            EXPECT_EQ(quarter(1 + i % 2 * 2, 1 + i / 2 * 2), expected[turn].c_str()[i] - '0')
                << turn;
        // The upper left quarter of what is seen.
        ASSERT_TRUE(scaler.scale(*frame, shape, {0, 0, whole.width / 2, whole.height / 2}, to));
        EXPECT_EQ(quarter(2, 2), expected[turn][0] - '0');
    }
}

INSTANTIATE_TEST_SUITE_P(Order, CameraScalingTest, testing::Values(CB_FIRST, CR_FIRST, PLANAR));

}  // namespace testing_support
