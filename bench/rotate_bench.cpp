// The rotation by 180 degrees, against one pass over the same bytes and against what others offer.

#include <libyuv.h>

#include <algorithm>
#include <cstring>
#include <functional>
#include <optional>
#include <string>
#include <vector>

#include "Rotate180.h"
#include "benches.h"
#include "frames.h"
#include "pieces.h"

#ifdef BENCH_HAS_OPENCV
#include <opencv2/core.hpp>
#endif

namespace bench {

namespace {

using vendor::zoru::zoruprovider::fdstream::V1_0::implementation::rotate180;
using Turn = std::function<void(FrameBuffer&)>;

// One read and one write of every byte, and nothing to rearrange: row by row, and from both ends
// toward the middle, in the order in which a rotation has to touch the bytes.

constexpr size_t kStep = 64;  // divides the widths; a whole line of the cache

FDSTREAM_PROCESSOR_CLONES
void invert(uint8_t* row, size_t count) {
    for (size_t i = 0; i < count; ++i)
        row[i] = static_cast<uint8_t>(~row[i]);
}

FDSTREAM_PROCESSOR_CLONES
void invertFromEnds(uint8_t* __restrict top, uint8_t* __restrict bottom, size_t count) {
    for (size_t at = 0; at < count; at += kStep) {
        uint8_t* const early = top + at;
        uint8_t* const late = bottom + count - kStep - at;
        for (size_t i = 0; i < kStep; ++i)
            early[i] = static_cast<uint8_t>(~early[i]);
        for (size_t i = 0; i < kStep; ++i)
            late[i] = static_cast<uint8_t>(~late[i]);
    }
}

void passRowByRow(FrameBuffer& frame) {
    const auto width = static_cast<size_t>(frame.width());
    for (int y = 0; y < frame.height(); ++y)
        invert(frame.luma() + y * frame.lumaStride(), width);
    for (int y = 0; y < frame.height() / 2; ++y)
        invert(frame.chroma() + y * frame.chromaStride(), width);
}

void passFromEnds(FrameBuffer& frame) {
    const auto pass = [width = static_cast<size_t>(frame.width())](uint8_t* top, int stride,
                                                                   int rows) {
        uint8_t* bottom = top + (rows - 1) * stride;
        for (; top < bottom; top += stride, bottom -= stride)
            invertFromEnds(top, bottom, width);
    };
    pass(frame.luma(), frame.lumaStride(), frame.height());
    pass(frame.chroma(), frame.chromaStride(), frame.height() / 2);
}

void turnWithYuv(FrameBuffer& frame) {
    libyuv::RotatePlane180(frame.luma(), frame.lumaStride(), frame.luma(), frame.lumaStride(),
                           frame.width(), frame.height());
    static std::vector<uint8_t> kept(kSizes[std::size(kSizes) - 1].width);
    uint8_t* top = frame.chroma();
    uint8_t* bottom = top + (frame.height() / 2 - 1) * frame.chromaStride();
    const int stride = frame.chromaStride();
    const int pairs = frame.width() / 2;
    for (; top < bottom; top += stride, bottom -= stride) {
        libyuv::MirrorUVPlane(top, stride, kept.data(), stride, pairs, 1);
        libyuv::MirrorUVPlane(bottom, stride, top, stride, pairs, 1);
        memcpy(bottom, kept.data(), static_cast<size_t>(frame.width()));
    }
}

#ifdef BENCH_HAS_OPENCV
void turnWithOpenCv(FrameBuffer& frame) {
    const auto lumaStride = static_cast<size_t>(frame.lumaStride());
    const auto chromaStride = static_cast<size_t>(frame.chromaStride());
    cv::Mat luma(frame.height(), frame.width(), CV_8UC1, frame.luma(), lumaStride);
    cv::flip(luma, luma, -1);
    cv::Mat chroma(frame.height() / 2, frame.width() / 2, CV_8UC2, frame.chroma(), chromaStride);
    cv::flip(chroma, chroma, -1);
}
#endif

std::vector<uint8_t> turned(FrameSize size) {
    std::vector<uint8_t> frame = testFrame(size);
    const auto chroma = frame.begin() + static_cast<std::ptrdiff_t>(size.width) * size.height;
    std::reverse(frame.begin(), chroma);
    std::reverse(chroma, frame.end());
    for (auto pair = chroma; pair != frame.end(); pair += 2)
        std::iter_swap(pair, pair + 1);
    return frame;
}

std::vector<uint8_t> inverted(FrameSize size) {
    std::vector<uint8_t> frame = testFrame(size);
    for (uint8_t& byte : frame)
        byte = static_cast<uint8_t>(~byte);
    return frame;
}

Contender contender(const std::string& name, const Turn& turn, FrameSize size,
                    const std::vector<uint8_t>& expected, WorkingSet& frames,
                    std::optional<double> aim = std::nullopt) {
    const auto run = [=, &frames](benchmark::State& state) {
        FrameBuffer probe(size, size.width);
        probe.fill(testFrame(size));
        turn(probe);
        if (probe.packed() != expected) {
            state.SkipWithError("the frame came out wrong");
            return;
        }
        for (auto _ : state)
            turn(frames.next());
    };
    return {name, run, aim};
}

}  // namespace

void benchRotation(Figures& figures, const Effort& effort) {
    for (const FrameSize& size : kSizes) {
        for (const bool inCache : {true, false}) {
            WorkingSet frames(size, size.width, inCache);
            const std::vector<uint8_t> expected = turned(size);
            const auto turnOurs = [](FrameBuffer& frame) { rotate180(frame.wrapped); };
            std::vector<Contender> references = {
                contender("in-place pass", passRowByRow, size, inverted(size), frames, 1.10),
                contender("the same, from both ends", passFromEnds, size, inverted(size), frames,
                          1.10),
                contender("libyuv", turnWithYuv, size, expected, frames, 1.0)};
#ifdef BENCH_HAS_OPENCV
            references.push_back(
                contender("OpenCV flip", turnWithOpenCv, size, expected, frames, 1.0));
#endif
            compare(figures, effort, "rotate180",
                    size.name + std::string(inCache ? ", in cache" : ", out of it"),
                    contender("ours", turnOurs, size, expected, frames), references);
        }
    }
#ifndef BENCH_HAS_OPENCV
    figures.leaveOut("OpenCV's flip, because libopencv-core-dev is missing.");
#endif
}

}  // namespace bench
