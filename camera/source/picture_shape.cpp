#include "source/picture_shape.h"

#include <algorithm>
#include <cmath>

namespace camera {

namespace {

constexpr int kLargest = 65535;  // that is announced
constexpr size_t kMatrixBytes = 9 * sizeof(int32_t);

const int32_t* matrixOf(const AVFrame& frame, const AVStream* stream) {
    const AVFrameSideData* const own = av_frame_get_side_data(&frame, AV_FRAME_DATA_DISPLAYMATRIX);
    if (own != nullptr && own->size >= kMatrixBytes) {
        return reinterpret_cast<const int32_t*>(own->data);
    }
    if (stream == nullptr) return nullptr;
    size_t size = 0;
    const uint8_t* const data = av_stream_get_side_data(stream, AV_PKT_DATA_DISPLAYMATRIX, &size);
    return size >= kMatrixBytes ? reinterpret_cast<const int32_t*>(data) : nullptr;
}

/** Wider or higher, never less than there is; as it is when that would be no picture any more. */
FrameSize squared(FrameSize size, AVRational pixel) {
    if (pixel.num <= 0 || pixel.den <= 0) return size;
    const double shape = av_q2d(pixel);
    const double width = std::round(size.width * std::max(shape, 1.0));
    const double height = std::round(size.height * std::max(1 / shape, 1.0));
    if (width > kLargest || height > kLargest) return size;
    return {static_cast<int>(width), static_cast<int>(height)};
}

/** Outward to pairs, and inside; the last sample of an odd number belongs to the pair before. */
void scale(int& from, int& length, int of, int to) {
    const double factor = double(to) / of;
    constexpr double kNothing = 1e-6;
    int begin = static_cast<int>(std::floor(from * factor + kNothing)) & ~1;
    int end = static_cast<int>(std::ceil((from + length) * factor - kNothing) + 1) & ~1;
    end = std::min(end, to);
    begin = std::clamp(begin, 0, std::max(0, (to - 1) & ~1));
    if (to - end == 1) end = to;
    from = begin;
    length = std::max(end - begin, 1);
}

}  // namespace

Rect PictureShape::samplesOf(const Rect& view) const {
    Rect samples = beforeTurn(view, orientation, squared);
    scale(samples.x, samples.width, squared.width, frame.width);
    scale(samples.y, samples.height, squared.height, frame.height);
    return samples;
}

PictureShape shapeOf(const AVFrame& frame, const AVStream* stream) {
    PictureShape shape;
    shape.frame = {frame.width, frame.height};
    AVRational pixel = frame.sample_aspect_ratio;
    if (pixel.num == 0 && stream != nullptr) pixel = stream->sample_aspect_ratio;
    shape.squared = squared(shape.frame, pixel);
    const int32_t* const matrix = matrixOf(frame, stream);
    if (matrix != nullptr) shape.orientation = orientationOf(matrix);
    return shape;
}

}  // namespace camera
