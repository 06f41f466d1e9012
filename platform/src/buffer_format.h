#pragma once

#include <cutils/native_handle.h>

#include <cstddef>
#include <cstdint>
#include <optional>

#include "host/buffer.h"
#include "host/unique_fd.h"
#include "host/unique_handle.h"

/**
 * The format of a buffer's handle: one descriptor, a memfd sealed against shrinking, and integers
 * that say the geometry. Both ends use these functions. A handle is not trusted before parse() has
 * checked it against the limits.
 */
namespace host::detail {

/** The geometry with its strides filled in; nothing when it cannot be a buffer's. */
[[nodiscard]] std::optional<BufferGeometry> complete(BufferGeometry geometry);

/** Bytes from the start of the memory to each plane, and the size of it all. */
struct PlaneOffsets {
    size_t cb;
    size_t cr;
    size_t chroma;  ///< the lower of the two
    size_t total;
};
PlaneOffsets planesOf(const BufferGeometry& completed);

/** A handle that owns the buffer's memory; null, and the memory closed, when none can be made. */
[[nodiscard]] UniqueHandle encode(UniqueFd memory, const BufferGeometry& completed);
/** The geometry that a handle claims; nothing when it is no buffer's. Looks at no file. */
[[nodiscard]] std::optional<BufferGeometry> parse(const native_handle_t* handle);

}  // namespace host::detail
