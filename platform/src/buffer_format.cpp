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

uint64_t totalBytes(const BufferGeometry& geometry) {
    const uint64_t planes = geometry.chromaStep == 1 ? 2 : 1;
    return uint64_t{geometry.stride} * geometry.height +
           planes * geometry.chromaStride * uint64_t{pairs(geometry.height)};
}

}  // namespace

std::optional<BufferGeometry> complete(BufferGeometry geometry) {
    if (geometry.width == 0 || geometry.height == 0 || geometry.width > kMaxExtent ||
        geometry.height > kMaxExtent || geometry.stride > kMaxStride ||
        geometry.chromaStride > kMaxStride || geometry.chromaStep == 0 ||
        geometry.chromaStep > kMaxChromaStep) {
        return std::nullopt;
    }
    if (geometry.order != ChromaOrder::CbFirst && geometry.order != ChromaOrder::CrFirst) {
        return std::nullopt;
    }
    const uint32_t chromaRow = pairs(geometry.width) * geometry.chromaStep;
    if (geometry.stride == 0) geometry.stride = 2 * pairs(geometry.width);
    if (geometry.chromaStride == 0) {
        geometry.chromaStride = std::max(geometry.stride / 2 * geometry.chromaStep, chromaRow);
    }
    if (geometry.stride < geometry.width || geometry.chromaStride < chromaRow) return std::nullopt;
    if (totalBytes(geometry) > kMaxBufferBytes) return std::nullopt;
    return geometry;
}

PlaneOffsets planesOf(const BufferGeometry& geometry) {
    PlaneOffsets planes{};
    planes.chroma = size_t{geometry.stride} * geometry.height;
    const size_t second = geometry.chromaStep == 1 ? planes.chroma + size_t{geometry.chromaStride} *
                                                                         pairs(geometry.height)
                                                   : planes.chroma + 1;
    const bool cbFirst = geometry.order == ChromaOrder::CbFirst;
    planes.cb = cbFirst ? planes.chroma : second;
    planes.cr = cbFirst ? second : planes.chroma;
    planes.total = static_cast<size_t>(totalBytes(geometry));
    return planes;
}

UniqueHandle encode(UniqueFd memory, const BufferGeometry& geometry) {
    UniqueHandle handle(native_handle_create(1, WORD_COUNT));
    if (handle == nullptr) return nullptr;
    handle->data[0] = memory.release();
    int* const words = &handle->data[1];
    words[WORD_MAGIC] = kMagic;
    words[WORD_WIDTH] = static_cast<int>(geometry.width);
    words[WORD_HEIGHT] = static_cast<int>(geometry.height);
    words[WORD_STRIDE] = static_cast<int>(geometry.stride);
    words[WORD_CHROMA_STRIDE] = static_cast<int>(geometry.chromaStride);
    words[WORD_ORDER] = static_cast<int>(geometry.order);
    words[WORD_CHROMA_STEP] = static_cast<int>(geometry.chromaStep);
    words[WORD_USAGE_LOW] = static_cast<int>(static_cast<uint32_t>(geometry.usage));
    words[WORD_USAGE_HIGH] = static_cast<int>(static_cast<uint32_t>(geometry.usage >> 32));
    return handle;
}

std::optional<BufferGeometry> parse(const native_handle_t* handle) {
    if (handle == nullptr || handle->version != static_cast<int>(sizeof(native_handle_t)) ||
        handle->numFds != 1 || handle->numInts != WORD_COUNT) {
        return std::nullopt;
    }
    const int* const words = &handle->data[1];
    const auto word = [words](Word index) { return static_cast<uint32_t>(words[index]); };
    if (words[WORD_MAGIC] != kMagic) return std::nullopt;
    BufferGeometry claimed;
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
