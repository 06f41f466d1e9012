#pragma once

#include <cutils/native_handle.h>

#include <cstddef>
#include <cstdint>
#include <optional>

#include "host/buffer.h"
#include "host/unique_fd.h"
#include "host/unique_handle.h"

/**
 * How a buffer's handle tells its geometry: one descriptor, a memfd sealed against shrinking, and
 * integers. Both ends use these functions, and nothing in a handle is believed before parse() has
 * held it against the caps.
 */
namespace host::detail {

/** The geometry with its strides filled in; nothing when it cannot be a buffer. */
std::optional<BufferGeometry> complete(BufferGeometry geometry);

/** Bytes from the start of the memory to each plane, and the size of it all. */
struct PlaneOffsets {
    size_t cb;
    size_t cr;
    size_t chroma;  ///< the lower of the two
    size_t total;
};
PlaneOffsets planesOf(const BufferGeometry& completed);

/** A handle that owns the buffer's memory; null, and the memory closed, when none can be made. */
UniqueHandle encode(UniqueFd memory, const BufferGeometry& completed);
/** The geometry a handle claims; nothing when it is not a buffer's. Looks at no memory or file. */
std::optional<BufferGeometry> parse(const native_handle_t* handle);

}  // namespace host::detail
