// What is done to pixels: the rotation by 180 degrees, against one pass over the same bytes and
// what others offer; and the copies between packed memory and a buffer, against those of others.

#include <libyuv.h>
#include <system/graphics.h>
#include <ui/GraphicBuffer.h>

#include <cstdint>
#include <cstring>

#include "ProcessorClones.h"
#include "Rotate180.h"
#include "ZoruUtil.h"
#include "bench.h"
#include "frame.h"

#ifdef BENCH_HAS_OPENCV
#include <opencv2/core.hpp>
#endif
#ifdef BENCH_HAS_AVUTIL
extern "C" {
#include <libavutil/imgutils.h>
}
#endif

namespace bench {

namespace {

using namespace vendor::zoru::zoruprovider::fdstream::V1_0::implementation;  // NOLINT

constexpr kit::FrameSize k720p = kit::kClipSize;
constexpr kit::FrameSize k4K = {3840, 2160};

/** A frame in a buffer of a client, wrapped as the session wraps it. */
struct FrameBuffer {
    /** `stride` 0: as the width. The pages of both mappings are there afterwards. */
    FrameBuffer(kit::FrameSize size, uint32_t stride, kit::Frame content)
        : memory(kit::allocate(size, {0, 0, stride})),
          wrapped(new android::GraphicBuffer(memory.handle(), android::GraphicBuffer::CLONE_HANDLE,
                                             memory.geometry().width, memory.geometry().height,
                                             HAL_PIXEL_FORMAT_YCBCR_420_888, 1,
                                             memory.geometry().usage, memory.geometry().width)) {
        kit::fill(memory, content);
        ZoruUtil::copyTo(content.data(), wrapped);
    }

    host::Buffer memory;
    sp<android::GraphicBuffer> wrapped;
};

// One read and one write of every byte, and nothing to rearrange: from the first to the last, and
// from both ends of a plane toward the middle, as a rotation has to touch the bytes.

FDSTREAM_PROCESSOR_CLONES
void invert(uint8_t* bytes, size_t count) {
    for (size_t i = 0; i < count; ++i)
        bytes[i] = static_cast<uint8_t>(~bytes[i]);
}

FDSTREAM_PROCESSOR_CLONES
void invertFromEnds(uint8_t* __restrict front, uint8_t* __restrict back, size_t count) {
    constexpr size_t kStep = 64;  // divides the halves of planes; a whole line of the cache
    for (; count > 0; count -= kStep, front += kStep) {
        uint8_t* const late = back + count - kStep;
        for (size_t i = 0; i < kStep; ++i)
            front[i] = static_cast<uint8_t>(~front[i]);
        for (size_t i = 0; i < kStep; ++i)
            late[i] = static_cast<uint8_t>(~late[i]);
    }
}

void passForward(const FrameBuffer& frame) {
    invert(frame.memory.bytes(), kit::sizeOf(frame.memory).bytes());
}

void passFromEnds(const FrameBuffer& frame) {
    const size_t half = kit::sizeOf(frame.memory).lumaBytes() / 2;
    uint8_t* const luma = frame.memory.lumaRow(0);
    invertFromEnds(luma, luma + half, half);
    uint8_t* const chroma = frame.memory.chromaRow(0);
    invertFromEnds(chroma, chroma + half / 2, half / 2);
}

void turnWithLoops(const FrameBuffer& frame) {
    const auto [width, height] = kit::sizeOf(frame.memory);
    turnPlainly(frame.memory.lumaRow(0), frame.memory.chromaRow(0), size_t(width), size_t(height));
}

void turnWithYuv(const FrameBuffer& frame) {
    const auto [width, height] = kit::sizeOf(frame.memory);
    uint8_t* const luma = frame.memory.lumaRow(0);
    libyuv::RotatePlane180(luma, width, luma, width, width, height);
    static std::vector<uint8_t> kept(static_cast<size_t>(k4K.width));
    uint8_t* top = frame.memory.chromaRow(0);
    uint8_t* bottom = top + (height / 2 - 1) * width;
    for (; top < bottom; top += width, bottom -= width) {
        libyuv::MirrorUVPlane(top, width, kept.data(), width, width / 2, 1);
        libyuv::MirrorUVPlane(bottom, width, top, width, width / 2, 1);
        memcpy(bottom, kept.data(), static_cast<size_t>(width));
    }
}

#ifdef BENCH_HAS_OPENCV
void turnWithOpenCv(const FrameBuffer& frame) {
    const auto [width, height] = kit::sizeOf(frame.memory);
    cv::Mat luma(height, width, CV_8UC1, frame.memory.lumaRow(0));
    cv::flip(luma, luma, -1);
    cv::Mat chroma(height / 2, width / 2, CV_8UC2, frame.memory.chromaRow(0));
    cv::flip(chroma, chroma, -1);
}
#endif

/** Somebody who passes over a frame, and whether that turns it or inverts its bytes. */
struct Contender {
    const char* name;
    void (*run)(const FrameBuffer& frame);
    bool turns;
    std::optional<double> aim;
};

const Contender kContenders[] = {
    {"ours", [](const FrameBuffer& frame) { rotate180(frame.wrapped); }, true, {}},
    {"in-place pass", passForward, false, 1.10},
    {"the same, from both ends", passFromEnds, false, 1.10},
    {"libyuv", turnWithYuv, true, 1.0},
    {"plain loops at -O3", turnWithLoops, true, 1.25},
#ifdef BENCH_HAS_OPENCV
    {"OpenCV flip", turnWithOpenCv, true, 1.0},
#endif
};

/** One frame, or so many that each leaves the cache until its turn comes again. */
void benchSize(Run& run, const std::string& what, kit::FrameSize size, bool inCache) {
    constexpr size_t kOutOfCache = size_t{384} << 20;  // more than most processors can keep
    const kit::Frame pattern = kit::patternOf(size);
    std::vector<FrameBuffer> frames;
    while (frames.size() < (inCache ? 1 : kOutOfCache / size.bytes() + 1))
        frames.emplace_back(size, 0, pattern);
    size_t next = 0;
    std::vector<Side> sides;
    for (const Contender& each : kContenders) {
        const auto check = [&] {
            const FrameBuffer probe(size, 0, pattern);
            each.run(probe);
            kit::Frame expected = each.turns ? kit::turnedBy180(pattern, size) : pattern;
            if (!each.turns) invert(expected.data(), expected.size());
            expect(kit::packed(probe.memory) == expected, "the frame came out wrong");
        };
        const auto work = [&] { each.run(frames[next++ % frames.size()]); };
        sides.push_back(loopOf(each.name, run.secondsPerSample, check, work, each.aim));
    }
    compare(run, "rotate180", what, sides);
}

/** Where the two planes of a frame are, and their bytes from row to row. */
struct Planes {
    uint8_t* luma;
    uint8_t* chroma;
    int stride;
};

void copyWithYuv(const Planes& to, const Planes& from, kit::FrameSize size) {
    const auto [width, height] = size;
    libyuv::CopyPlane(from.luma, from.stride, to.luma, to.stride, width, height);
    libyuv::CopyPlane(from.chroma, from.stride, to.chroma, to.stride, width, height / 2);
}

#ifdef BENCH_HAS_AVUTIL
void copyWithAvutil(const Planes& to, const Planes& from, kit::FrameSize size) {
    uint8_t* toPlanes[4] = {to.luma, to.chroma};
    int toStrides[4] = {to.stride, to.stride};
    const uint8_t* fromPlanes[4] = {from.luma, from.chroma};
    const int fromStrides[4] = {from.stride, from.stride};
    av_image_copy(toPlanes, toStrides, fromPlanes, fromStrides, AV_PIX_FMT_NV12, size.width,
                  size.height);
}
#endif

/** One direction of the copy, between packed memory and a buffer whose rows are so far apart. */
void benchDirection(Run& run, const std::string& what, kit::FrameSize size, int padding,
                    std::optional<double> aim, bool toBuffer) {
    const kit::Frame frame = kit::patternOf(size);
    const kit::Frame other(frame.size(), 0x5a);
    const int stride = size.width + padding;
    const FrameBuffer buffer(size, static_cast<uint32_t>(stride), frame);
    kit::Frame memory = frame;
    const Planes inBuffer = {buffer.memory.lumaRow(0), buffer.memory.chromaRow(0), stride};
    const Planes inMemory = {memory.data(), memory.data() + size.lumaBytes(), size.width};
    const Planes& to = toBuffer ? inBuffer : inMemory;
    const Planes& from = toBuffer ? inMemory : inBuffer;

    std::vector<Side> sides;
    const auto add = [&](const char* name, const std::function<void()>& copy,
                         std::optional<double> itsAim) {
        const auto check = [&, copy] {
            memory = toBuffer ? frame : other;
            kit::fill(buffer.memory, toBuffer ? other : frame);
            copy();
            expect(memory == frame && kit::packed(buffer.memory) == frame,
                   "the frame came out wrong");
        };
        sides.push_back(loopOf(name, run.secondsPerSample, check, copy, itsAim));
    };
    const auto ours = [&] {
        toBuffer ? ZoruUtil::copyTo(memory.data(), buffer.wrapped)
                 : ZoruUtil::copyFrom(memory.data(), buffer.wrapped);
    };
    add("ours", ours, {});
    const auto yuv = [&] { copyWithYuv(to, from, size); };
    add("libyuv", yuv, aim);
#ifdef BENCH_HAS_AVUTIL
    const auto avutil = [&] { copyWithAvutil(to, from, size); };
    add("FFmpeg", avutil, aim);
#endif
    // As many bytes, without rows; the luma plane is where all of them begin.
    const auto all = [&] { memcpy(to.luma, from.luma, frame.size()); };
    sides.push_back(loopOf("one memcpy", run.secondsPerSample, all, all));
    compare(run, toBuffer ? "copyTo" : "copyFrom", what, sides);
}

}  // namespace

void benchRotation(Run& run) {
    for (const auto& [name, size] :
         {std::pair{"720p", k720p}, {"1080p", {1920, 1080}}, {"4K", k4K}}) {
        benchSize(run, std::string(name) + ", in cache", size, true);
        benchSize(run, std::string(name) + ", out of it", size, false);
    }
#ifndef BENCH_HAS_OPENCV
    run.leaveOut("OpenCV's flip, because libopencv-core-dev is missing.");
#endif
}

void benchCopies(Run& run) {
    // The peers copy rows too, so level is the best to be had; less than this cannot be told apart.
    constexpr double kLevel = 1.05;
    for (const bool toBuffer : {true, false}) {
        benchDirection(run, "720p, strided", k720p, 256, kLevel, toBuffer);
        benchDirection(run, "720p, unstrided", k720p, 0, {}, toBuffer);
        benchDirection(run, "4K, strided", k4K, 256, kLevel, toBuffer);
        benchDirection(run, "4K, unstrided", k4K, 0, {}, toBuffer);
    }
#ifndef BENCH_HAS_AVUTIL
    run.leaveOut("FFmpeg's image copy, because libavutil-dev is missing.");
#endif
}

}  // namespace bench
