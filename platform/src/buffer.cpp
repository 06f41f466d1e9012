#include "host/buffer.h"

#include <fcntl.h>
#include <sys/mman.h>
#include <unistd.h>

#include <utility>

#include "buffer_format.h"
#include "host/unique_fd.h"
#include "host/unique_handle.h"
#include "memory_map.h"

namespace host {

uint64_t claimedBytes(const native_handle_t* handle) {
    const std::optional<BufferGeometry> claimed = detail::parse(handle);
    return claimed ? detail::planesOf(*claimed).total : 0;
}

struct Buffer::Parts {
    Parts(BufferGeometry completed, UniqueHandle owned)
        : geometry(completed), handle(std::move(owned)) {}

    const BufferGeometry geometry;
    const UniqueHandle handle;
    detail::MemoryMap map;
};

std::optional<Buffer> Buffer::allocate(const BufferGeometry& geometry) {
    const std::optional<BufferGeometry> completed = detail::complete(geometry);
    if (!completed) return std::nullopt;
    const size_t size = detail::planesOf(*completed).total;

    UniqueFd memory(memfd_create("fdstream-buffer", MFD_CLOEXEC | MFD_ALLOW_SEALING));
    if (!memory.isValid()) return std::nullopt;
    const int fd = memory.get();
    UniqueHandle handle = detail::encode(std::move(memory), *completed);
    if (handle == nullptr) return std::nullopt;
    auto parts = std::make_unique<Parts>(*completed, std::move(handle));
    const bool sized = ftruncate(fd, static_cast<off_t>(size)) == 0 &&
                       fcntl(fd, F_ADD_SEALS, F_SEAL_SHRINK | F_SEAL_GROW | F_SEAL_SEAL) == 0;
    if (!sized || !parts->map.map(fd, size)) return std::nullopt;
    return Buffer(std::move(parts));
}

Buffer::Buffer(std::unique_ptr<Parts> parts) : mParts(std::move(parts)) {}
Buffer::Buffer(Buffer&&) noexcept = default;
Buffer& Buffer::operator=(Buffer&&) noexcept = default;
Buffer::~Buffer() = default;

const native_handle_t* Buffer::handle() const {
    return mParts->handle.get();
}

const BufferGeometry& Buffer::geometry() const {
    return mParts->geometry;
}

uint8_t* Buffer::bytes() const {
    return mParts->map.data();
}

size_t Buffer::size() const {
    return mParts->map.size();
}

uint8_t* Buffer::lumaRow(uint32_t row) const {
    return bytes() + size_t{row} * geometry().stride;
}

uint8_t* Buffer::chromaRow(uint32_t row) const {
    return bytes() + detail::planesOf(geometry()).chroma + size_t{row} * geometry().chromaStride;
}

}  // namespace host
