#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

#include "host/buffer.h"

/** NV12 frames in memory: luma rows, and half as many rows of Cb-Cr pairs. */
namespace kit {

/**
 * In pixels. A row of chroma has as many bytes as one of luma, so with an odd width its last byte
 * is half a pair; the rows of chroma are half the height, rounded down. Value type.
 */
struct FrameSize {
    int width;
    int height;

    constexpr size_t lumaBytes() const {
        return static_cast<size_t>(width) * static_cast<size_t>(height);
    }
    constexpr size_t bytes() const { return static_cast<size_t>(width) * rows(); }
    /** Of luma and chroma together. */
    constexpr size_t rows() const {
        return static_cast<size_t>(height) + static_cast<size_t>(height / 2);
    }
};

// The geometry of clips: what the test frame source plays.
constexpr int kFrameWidth = 1280;
constexpr int kFrameHeight = 720;
constexpr FrameSize kClipSize = {kFrameWidth, kFrameHeight};
constexpr size_t kLumaBytes = kClipSize.lumaBytes();
constexpr size_t kFrameBytes = kClipSize.bytes();

/** The rows of a frame without padding, those of luma first. */
using Frame = std::vector<uint8_t>;

/** Bytes that no turn or shift leaves alike; other ones for each seed. */
Frame patternOf(FrameSize size, unsigned seed = 7);

/**
 * The frame turned by 180 degrees: the last sample first, in luma and in pairs of chroma. The byte
 * of no pair keeps its column. Below a height of 4 the chroma stays.
 */
Frame turnedBy180(const Frame& frame, FrameSize size = kClipSize);

/** In words, the first place where two frames differ; empty when they are equal. */
std::string difference(const Frame& got, const Frame& expected, FrameSize size = kClipSize);

/** A new buffer; ends the program when memory is short. */
host::Buffer allocate(FrameSize size, const host::BufferGeometry& other = {});
FrameSize sizeOf(const host::Buffer& buffer);
/** The frame in a buffer, from wherever its rows are. */
Frame packed(const host::Buffer& buffer);
/** Writes the frame into the buffer's rows, and nothing between them. */
void fill(const host::Buffer& buffer, const Frame& frame);

}  // namespace kit
