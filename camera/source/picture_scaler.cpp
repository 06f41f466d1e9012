#include "source/picture_scaler.h"

extern "C" {
#include <libavutil/opt.h>
}
#include <libyuv.h>

#include <cstring>

namespace camera {

namespace {

// libswscale writes whole vectors, up to twelve bytes past the end of a row that is shorter, and to
// three planes past longer ones, too.
constexpr int kNarrowest = 16;
constexpr int kOwnAlignment = 64;

struct Format {
    AVPixelFormat format;
    bool isFullRange;
};

/** Without the names that mean full range, too. */
Format formatOf(const AVFrame& frame) {
    const auto format = static_cast<AVPixelFormat>(frame.format);
    const bool isFull = frame.color_range == AVCOL_RANGE_JPEG;
    switch (format) {
        case AV_PIX_FMT_YUVJ420P:
            return {AV_PIX_FMT_YUV420P, true};
        case AV_PIX_FMT_YUVJ422P:
            return {AV_PIX_FMT_YUV422P, true};
        case AV_PIX_FMT_YUVJ444P:
            return {AV_PIX_FMT_YUV444P, true};
        case AV_PIX_FMT_YUVJ440P:
            return {AV_PIX_FMT_YUV440P, true};
        case AV_PIX_FMT_YUVJ411P:
            return {AV_PIX_FMT_YUV411P, true};
        default:
            return {format,
                    isFull && (av_pix_fmt_desc_get(format)->flags & AV_PIX_FMT_FLAG_RGB) == 0};
    }
}

bool canBeCropped(const AVFrame& frame) {
    const AVPixFmtDescriptor& format =
        *av_pix_fmt_desc_get(static_cast<AVPixelFormat>(frame.format));
    constexpr uint64_t kNot =
        AV_PIX_FMT_FLAG_BITSTREAM | AV_PIX_FMT_FLAG_HWACCEL | AV_PIX_FMT_FLAG_BAYER;
    return (format.flags & kNot) == 0 && format.log2_chroma_w <= 1 && format.log2_chroma_h <= 1;
}

/** In which such a picture is kept; black and white stay full range only as shades of grey. */
AVPixelFormat croppableFor(int format) {
    const bool isMono = format == AV_PIX_FMT_MONOBLACK || format == AV_PIX_FMT_MONOWHITE;
    return isMono ? AV_PIX_FMT_GRAY8 : AV_PIX_FMT_YUV444P;
}

/** A frame that shows this part of another; null when memory is short. */
FramePtr partOf(const AVFrame& frame, const Rect& part) {
    FramePtr cropped(av_frame_clone(&frame));
    if (cropped == nullptr) return nullptr;
    cropped->crop_left = static_cast<size_t>(part.x);
    cropped->crop_top = static_cast<size_t>(part.y);
    cropped->crop_right = static_cast<size_t>(frame.width - part.x - part.width);
    cropped->crop_bottom = static_cast<size_t>(frame.height - part.y - part.height);
    if (av_frame_apply_cropping(cropped.get(), AV_FRAME_CROP_UNALIGNED) < 0) return nullptr;
    return cropped;
}

/** Memory of the camera's own; the old one when it fits. */
bool prepare(FramePtr& frame, FrameSize size, AVPixelFormat format) {
    if (frame != nullptr && frame->width == size.width && frame->height == size.height &&
        frame->format == format) {
        return true;
    }
    frame.reset(av_frame_alloc());
    if (frame == nullptr) return false;
    // With room for whole vectors after the last sample.
    frame->width = size.width + kNarrowest;
    frame->height = size.height;
    frame->format = format;
    const bool isThere = av_frame_get_buffer(frame.get(), kOwnAlignment) >= 0;
    frame->width = size.width;
    if (!isThere) frame.reset();
    return isThere;
}

void copyRows(const uint8_t* from, int fromStride, uint8_t* to, int toStride, int bytes, int rows) {
    for (int row = 0; row < rows; ++row)
        memcpy(to + ptrdiff_t{row} * toStride, from + ptrdiff_t{row} * fromStride,
               static_cast<size_t>(bytes));
}

AVPixelFormat formatOf(const Planes& planes) {
    return planes.isCbFirst() ? AV_PIX_FMT_NV12 : AV_PIX_FMT_NV21;
}

/** What libswscale leaves the chroma of as it was. */
bool isAlike(const AVFrame& part, const Planes& to) {
    return part.format == formatOf(to) && part.color_range != AVCOL_RANGE_JPEG &&
           part.width == to.size.width && part.height == to.size.height;
}

/** From three planes of the camera's own. */
void deliver(const AVFrame& frame, const Planes& to) {
    copyRows(frame.data[0], frame.linesize[0], to.luma, to.lumaStride, to.size.width,
             to.size.height);
    const int width = to.chromaWidth();
    const int height = to.chromaHeight();
    if (to.chromaStep == 1) {
        copyRows(frame.data[1], frame.linesize[1], to.cb, to.chromaStride, width, height);
        copyRows(frame.data[2], frame.linesize[2], to.cr, to.chromaStride, width, height);
        return;
    }
    const int first = to.isCbFirst() ? 1 : 2;
    libyuv::MergeUVPlane(frame.data[first], frame.linesize[first], frame.data[3 - first],
                         frame.linesize[3 - first], to.pairs(), to.chromaStride, width, height);
}

bool turn(const AVFrame& from, const Orientation& orientation, AVFrame& to) {
    // A negative height mirrors.
    const int height = orientation.isMirrored ? -from.height : from.height;
    return libyuv::I420Rotate(from.data[0], from.linesize[0], from.data[1], from.linesize[1],
                              from.data[2], from.linesize[2], to.data[0], to.linesize[0],
                              to.data[1], to.linesize[1], to.data[2], to.linesize[2], from.width,
                              height,
                              static_cast<libyuv::RotationMode>(orientation.quarters * 90)) == 0;
}

/** Before it is made ready: a range that is set later is ignored when the size stays. */
ScalerPtr scalerFor(FrameSize from, int fromFormat, bool isFullRange, FrameSize to, int toFormat) {
    ScalerPtr scaler(sws_alloc_context());
    if (scaler == nullptr) return nullptr;
    const struct {
        const char* name;
        int value;
    } options[] = {
        {"srcw", from.width},
        {"srch", from.height},
        {"src_format", fromFormat},
        {"dstw", to.width},
        {"dsth", to.height},
        {"dst_format", toFormat},
        {"src_range", isFullRange ? 1 : 0},
        {"dst_range", 0},
        {"sws_flags", kScalerFlags},
    };
    for (const auto& option : options)
        av_opt_set_int(scaler.get(), option.name, option.value, 0);
    if (sws_init_context(scaler.get(), nullptr, nullptr) < 0) scaler.reset();
    return scaler;
}

}  // namespace

bool PictureScaler::Setting::operator==(const Setting& other) const {
    const auto same = [](FrameSize a, FrameSize b) {
        return a.width == b.width && a.height == b.height;
    };
    return same(from, other.from) && same(to, other.to) && fromFormat == other.fromFormat &&
           toFormat == other.toFormat && isFullRange == other.isFullRange;
}

bool PictureScaler::Conversion::run(const AVFrame& from, FrameSize size, int format,
                                    uint8_t* const* data, const int* strides) {
    const Format source = formatOf(from);
    const Setting wanted = {
        {from.width, from.height}, size, source.format, format, source.isFullRange};
    if (scaler == nullptr || !(wanted == setting)) {
        scaler = scalerFor(wanted.from, source.format, source.isFullRange, size, format);
        setting = wanted;
    }
    if (scaler == nullptr) return false;
    return sws_scale(scaler.get(), from.data, from.linesize, 0, from.height, data, strides) ==
           size.height;
}

bool PictureScaler::scale(const AVFrame& frame, const PictureShape& shape, const Rect& view,
                          const Planes& to) {
    if (sws_isSupportedInput(static_cast<AVPixelFormat>(frame.format)) == 0) return false;
    const AVFrame* whole = &frame;
    if (!canBeCropped(frame)) {
        const AVPixelFormat format = croppableFor(frame.format);
        if (!prepare(mWholeFrame, shape.frame, format) ||
            !mWhole.run(frame, shape.frame, format, mWholeFrame->data, mWholeFrame->linesize)) {
            return false;
        }
        whole = mWholeFrame.get();
    }
    const FramePtr part = partOf(*whole, shape.samplesOf(view));
    if (part == nullptr) return false;
    const bool isNarrow = to.size.width < kNarrowest || to.chromaStep != 2;
    return isNarrow || !shape.orientation.isUpright()
               ? scaleThroughOwn(*part, shape.orientation, to)
               : scaleDirectly(*part, to);
}

bool PictureScaler::scaleDirectly(const AVFrame& part, const Planes& to) {
    if (isAlike(part, to)) {
        copyRows(part.data[0], part.linesize[0], to.luma, to.lumaStride, to.size.width,
                 to.size.height);
        copyRows(part.data[1], part.linesize[1], to.pairs(), to.chromaStride, 2 * to.chromaWidth(),
                 to.chromaHeight());
        return true;
    }
    uint8_t* const data[4] = {to.luma, to.pairs(), nullptr, nullptr};
    const int strides[4] = {to.lumaStride, to.chromaStride, 0, 0};
    return mPart.run(part, to.size, formatOf(to), data, strides);
}

bool PictureScaler::scaleThroughOwn(const AVFrame& part, const Orientation& orientation,
                                    const Planes& to) {
    const FrameSize size = orientation.turned(to.size);
    if (!prepare(mScaled, size, AV_PIX_FMT_YUV420P) ||
        !mPart.run(part, size, AV_PIX_FMT_YUV420P, mScaled->data, mScaled->linesize)) {
        return false;
    }
    if (orientation.isUpright()) {
        deliver(*mScaled, to);
        return true;
    }
    if (!prepare(mTurned, to.size, AV_PIX_FMT_YUV420P) || !turn(*mScaled, orientation, *mTurned)) {
        return false;
    }
    deliver(*mTurned, to);
    return true;
}

}  // namespace camera
