#include "buffer_format.h"

#include <algorithm>

namespace host::detail {

namespace {

constexpr int kMagic = 0x46444231;  // "FDB1"
constexpr uint32_t kMaxExtent = 1U << 15;
constexpr uint32_t kMaxStride = 1U << 20;
constexpr uint32_t kMaxChromaStep = 8;

enum Word {
    WORD_MAGIC,
    WORD_WIDTH,
    WORD_HEIGHT,
    WORD_STRIDE,
    WORD_CHROMA_STRIDE,
    WORD_ORDER,
    WORD_CHROMA_STEP,
    WORD_USAGE_LOW,
    WORD_USAGE_HIGH,
    WORD_COUNT
};

uint32_t pairs(uint32_t extent) {
    return (extent + 1) / 2;
}

uint64_t totalBytes(const BufferSpec& spec) {
    const uint64_t planes = spec.chromaStep == 1 ? 2 : 1;
    return uint64_t{spec.stride} * spec.height +
           planes * spec.chromaStride * uint64_t{pairs(spec.height)};
}

}  // namespace

std::optional<BufferSpec> complete(BufferSpec spec) {
    if (spec.width == 0 || spec.height == 0 || spec.width > kMaxExtent ||
        spec.height > kMaxExtent || spec.stride > kMaxStride || spec.chromaStride > kMaxStride ||
        spec.chromaStep == 0 || spec.chromaStep > kMaxChromaStep) {
        return std::nullopt;
    }
    if (spec.order != ChromaOrder::CbFirst && spec.order != ChromaOrder::CrFirst) {
        return std::nullopt;
    }
    const uint32_t chromaRow = pairs(spec.width) * spec.chromaStep;
    if (spec.stride == 0) spec.stride = 2 * pairs(spec.width);
    if (spec.chromaStride == 0) {
        spec.chromaStride = std::max(spec.stride / 2 * spec.chromaStep, chromaRow);
    }
    if (spec.stride < spec.width || spec.chromaStride < chromaRow) return std::nullopt;
    if (totalBytes(spec) > kMaxBufferBytes) return std::nullopt;
    return spec;
}

PlaneOffsets planesOf(const BufferSpec& spec) {
    PlaneOffsets planes{};
    planes.chroma = size_t{spec.stride} * spec.height;
    const size_t second = spec.chromaStep == 1
                              ? planes.chroma + size_t{spec.chromaStride} * pairs(spec.height)
                              : planes.chroma + 1;
    const bool cbFirst = spec.order == ChromaOrder::CbFirst;
    planes.cb = cbFirst ? planes.chroma : second;
    planes.cr = cbFirst ? second : planes.chroma;
    planes.total = static_cast<size_t>(totalBytes(spec));
    return planes;
}

native_handle_t* encode(int fd, const BufferSpec& spec) {
    native_handle_t* const handle = native_handle_create(1, WORD_COUNT);
    if (handle == nullptr) return nullptr;
    handle->data[0] = fd;
    int* const words = &handle->data[1];
    words[WORD_MAGIC] = kMagic;
    words[WORD_WIDTH] = static_cast<int>(spec.width);
    words[WORD_HEIGHT] = static_cast<int>(spec.height);
    words[WORD_STRIDE] = static_cast<int>(spec.stride);
    words[WORD_CHROMA_STRIDE] = static_cast<int>(spec.chromaStride);
    words[WORD_ORDER] = static_cast<int>(spec.order);
    words[WORD_CHROMA_STEP] = static_cast<int>(spec.chromaStep);
    words[WORD_USAGE_LOW] = static_cast<int>(static_cast<uint32_t>(spec.usage));
    words[WORD_USAGE_HIGH] = static_cast<int>(static_cast<uint32_t>(spec.usage >> 32));
    return handle;
}

std::optional<BufferSpec> parse(const native_handle_t* handle) {
    if (handle == nullptr || handle->version != static_cast<int>(sizeof(native_handle_t)) ||
        handle->numFds != 1 || handle->numInts != WORD_COUNT) {
        return std::nullopt;
    }
    const int* const words = &handle->data[1];
    const auto word = [words](Word index) { return static_cast<uint32_t>(words[index]); };
    if (words[WORD_MAGIC] != kMagic) return std::nullopt;
    BufferSpec claimed;
    claimed.width = word(WORD_WIDTH);
    claimed.height = word(WORD_HEIGHT);
    claimed.stride = word(WORD_STRIDE);
    claimed.chromaStride = word(WORD_CHROMA_STRIDE);
    claimed.order = static_cast<ChromaOrder>(words[WORD_ORDER]);
    claimed.chromaStep = word(WORD_CHROMA_STEP);
    claimed.usage = word(WORD_USAGE_LOW) | uint64_t{word(WORD_USAGE_HIGH)} << 32;
    return complete(claimed);
}

}  // namespace host::detail
