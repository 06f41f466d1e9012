#pragma once

#include <sys/mman.h>

#include <cstddef>
#include <cstdint>

namespace host::detail {

/** A shared, writable mapping of a file. Resource type: unmaps when destroyed. */
class MemoryMap {
public:
    MemoryMap() = default;
    ~MemoryMap() {
        if (mData != nullptr) munmap(mData, mSize);
    }
    MemoryMap(const MemoryMap&) = delete;
    MemoryMap& operator=(const MemoryMap&) = delete;

    /** False when the kernel refuses. To be called once. */
    [[nodiscard]] bool map(int fd, size_t size) {
        void* const data = mmap(nullptr, size, PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0);
        if (data == MAP_FAILED) return false;
        mData = static_cast<uint8_t*>(data);
        mSize = size;
        return true;
    }

    uint8_t* data() const { return mData; }
    size_t size() const { return mSize; }

private:
    uint8_t* mData = nullptr;
    size_t mSize = 0;
};

}  // namespace host::detail
