// The copies between packed memory and a buffer, against the plane copies of others.

#include <libyuv.h>

#include <cstring>
#include <functional>
#include <optional>
#include <string>
#include <vector>

#include "ZoruUtil.h"
#include "benches.h"
#include "frames.h"
#include "pieces.h"

#ifdef BENCH_HAS_AVUTIL
extern "C" {
#include <libavutil/imgutils.h>
}
#endif

namespace bench {

namespace {

using vendor::zoru::zoruprovider::fdstream::V1_0::implementation::ZoruUtil;

/** Where the two planes of a frame are; strides in bytes. */
struct Planes {
    uint8_t* luma;
    int lumaStride;
    uint8_t* chroma;
    int chromaStride;
};

Planes planesOf(const FrameBuffer& frame) {
    return {frame.luma(), frame.lumaStride(), frame.chroma(), frame.chromaStride()};
}

Planes planesOf(std::vector<uint8_t>& packed, FrameSize size) {
    const auto width = static_cast<int>(size.width);
    return {packed.data(), width, packed.data() + size_t{size.width} * size.height, width};
}

void copyWithYuv(const Planes& to, const Planes& from, int width, int height) {
    libyuv::CopyPlane(from.luma, from.lumaStride, to.luma, to.lumaStride, width, height);
    libyuv::CopyPlane(from.chroma, from.chromaStride, to.chroma, to.chromaStride, width,
                      height / 2);
}

#ifdef BENCH_HAS_AVUTIL
void copyWithAvutil(const Planes& to, const Planes& from, int width, int height) {
    uint8_t* toPlanes[4] = {to.luma, to.chroma};
    int toStrides[4] = {to.lumaStride, to.chromaStride};
    const uint8_t* fromPlanes[4] = {from.luma, from.chroma};
    const int fromStrides[4] = {from.lumaStride, from.chromaStride};
    av_image_copy(toPlanes, toStrides, fromPlanes, fromStrides, AV_PIX_FMT_NV12, width, height);
}
#endif

/** One direction of the copy, between a buffer and packed memory. */
class Direction {
public:
    Direction(FrameSize size, uint32_t stride, bool toBuffer)
        : mSize(size),
          mToBuffer(toBuffer),
          mFrame(testFrame(size)),
          mBuffer(size, stride),
          mMemory(mFrame) {}

    void ours() {
        if (mToBuffer) {
            ZoruUtil::copyTo(mMemory.data(), mBuffer.wrapped);
        } else {
            ZoruUtil::copyFrom(mMemory.data(), mBuffer.wrapped);
        }
    }
    template <typename Copy>
    void planes(Copy copy) {
        const Planes packed = planesOf(mMemory, mSize);
        const Planes buffer = planesOf(mBuffer);
        copy(mToBuffer ? buffer : packed, mToBuffer ? packed : buffer, mBuffer.width(),
             mBuffer.height());
    }
    Contender contender(const std::string& name, const std::function<void()>& copy,
                        std::optional<double> aim = std::nullopt) {
        return checked(
            name, copy, [this] { return mMemory == mFrame && mBuffer.packed() == mFrame; }, aim);
    }
    /** As many bytes, without rows. */
    Contender limit(const std::string& name) {
        const size_t size = mSize.packedBytes();
        return checked(
            name, [=] { memcpy(to(), from(), size); },
            [=] { return memcmp(to(), from(), size) == 0; }, std::nullopt);
    }

private:
    uint8_t* to() { return mToBuffer ? mBuffer.memory.bytes() : mMemory.data(); }
    uint8_t* from() { return mToBuffer ? mMemory.data() : mBuffer.memory.bytes(); }

    Contender checked(const std::string& name, const std::function<void()>& copy,
                      const std::function<bool()>& isRight, std::optional<double> aim) {
        const auto run = [=](benchmark::State& state) {
            const std::vector<uint8_t> other(mFrame.size(), 0x5a);
            mMemory = mToBuffer ? mFrame : other;
            mBuffer.fill(mToBuffer ? other : mFrame);
            copy();
            if (!isRight()) {
                state.SkipWithError("the frame came out wrong");
                return;
            }
            for (auto _ : state)
                copy();
        };
        return {name, run, aim};
    }

    const FrameSize mSize;
    const bool mToBuffer;
    const std::vector<uint8_t> mFrame;
    FrameBuffer mBuffer;
    std::vector<uint8_t> mMemory;
};

void benchDirection(Figures& figures, const Effort& effort, FrameSize size, bool strided,
                    bool toBuffer) {
    Direction direction(size, size.width + (strided ? 256 : 0), toBuffer);
    // The peers copy rows too, so level is the best to be had; less than this cannot be told apart.
    const std::optional<double> aim = strided ? std::optional(1.05) : std::nullopt;
    std::vector<Contender> references = {direction.contender(
        "libyuv", [&] { direction.planes(copyWithYuv); }, aim)};
#ifdef BENCH_HAS_AVUTIL
    references.push_back(direction.contender(
        "FFmpeg", [&] { direction.planes(copyWithAvutil); }, aim));
#endif
    references.push_back(direction.limit("one memcpy"));
    compare(figures, effort, toBuffer ? "copyTo" : "copyFrom",
            size.name + std::string(strided ? ", strided" : ", unstrided"),
            direction.contender("ours", [&] { direction.ours(); }), references);
}

}  // namespace

void benchCopies(Figures& figures, const Effort& effort) {
    for (const bool toBuffer : {true, false}) {
        for (const FrameSize& size : {kSizes[0], kSizes[2]}) {
            for (const bool strided : {true, false})
                benchDirection(figures, effort, size, strided, toBuffer);
        }
    }
#ifndef BENCH_HAS_AVUTIL
    figures.leaveOut("FFmpeg's image copy, because libavutil-dev is missing.");
#endif
}

}  // namespace bench
