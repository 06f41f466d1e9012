#pragma once

#include <cutils/native_handle.h>

#include <cstddef>
#include <cstdint>
#include <memory>
#include <optional>

namespace host {

enum class ChromaOrder : int32_t { CbFirst = 0, CrFirst = 1 };

/**
 * The geometry of a 4:2:0 buffer. Sizes are in pixels, strides and the chroma step in bytes. The
 * luma plane comes first: `height` rows, `stride` apart. The chroma follows, (height + 1) / 2 rows,
 * `chromaStride` apart: interleaved in one plane, or with a chroma step of 1 in two planes.
 */
struct BufferGeometry {
    uint32_t width = 0;
    uint32_t height = 0;
    uint32_t stride = 0;        ///< 0 for the width, rounded up to an even number
    uint32_t chromaStride = 0;  ///< 0 for the one that fits the stride and the chroma step
    ChromaOrder order = ChromaOrder::CbFirst;
    uint32_t chromaStep = 2;  ///< 1 to 8
    uint64_t usage = 0x33;    ///< often read and written by the processor
};

/** The most bytes of a buffer's memory; a handle that claims more is not a buffer's. */
constexpr uint64_t kMaxBufferBytes = uint64_t{256} << 20;

/** The bytes of memory that a handle claims, of which no lock gives more; 0 when it is no buffer's.
 * Looks at no file. */
[[nodiscard]] uint64_t claimedBytes(const native_handle_t* handle);

/**
 * A graphics buffer as a client allocates it: a sealed memfd, a handle for it, and a mapping to
 * look at its bytes. Resource type: owns all three, moved, not copied.
 */
class Buffer {
public:
    /** Nothing when the geometry is impossible, or without memory or descriptors. */
    [[nodiscard]] static std::optional<Buffer> allocate(const BufferGeometry& geometry);

    Buffer(Buffer&&) noexcept;
    Buffer& operator=(Buffer&&) noexcept;
    ~Buffer();

    /** The raw handle, to be sent with a request; stays the buffer's own. */
    const native_handle_t* handle() const;
    /** As allocated, with the strides filled in. */
    const BufferGeometry& geometry() const;

    uint8_t* bytes() const;
    size_t size() const;
    /** Start of a luma row, and of a row of the chroma plane that comes first. */
    uint8_t* lumaRow(uint32_t row) const;
    uint8_t* chromaRow(uint32_t row) const;

private:
    struct Parts;
    explicit Buffer(std::unique_ptr<Parts> parts);
    std::unique_ptr<Parts> mParts;
};

/** Makes one lock of the real mapper in this process return `status`, after `skip` normal ones. */
void failLock(int status, int skip = 0);
/** Makes the next GraphicBuffer::unlock() of this process return `status`. It unlocks all the same.
 */
void failNextUnlock(int status);

}  // namespace host
