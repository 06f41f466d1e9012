#pragma once

#include <android-base/thread_annotations.h>
#include <android/hardware/graphics/mapper/2.0/IMapper.h>
#include <cutils/native_handle.h>

#include <array>
#include <cstdint>
#include <map>
#include <memory>
#include <mutex>
#include <optional>

#include "buffer_format.h"
#include "host/mapper.h"
#include "host/unique_handle.h"
#include "memory_map.h"

namespace host::detail {

using MapperError = android::hardware::graphics::mapper::V2_0::Error;
using MapperRect = android::hardware::graphics::mapper::V2_0::IMapper::Rect;
using MapperLayout = android::hardware::graphics::mapper::V2_0::YCbCrLayout;

/**
 * The one mapper of the process, behind both service versions and every graphics buffer.
 *
 * Each import is a clone of the handle and a share in the mapping of its memory. Memory is mapped
 * at its first import and unmapped with its last one: importing it again, from the raw handle or
 * from an imported one, costs no mmap, and locking never does. What a client sent is checked before
 * it is mapped: first the seal and then the size, which the seal keeps from shrinking afterwards.
 *
 * All operations are thread-safe. Never destroyed.
 */
class BufferMapper {
public:
    static BufferMapper& get();

    /** On NONE `imported` is valid until the caller frees it. */
    MapperError import(const native_handle_t* raw, buffer_handle_t& imported);
    MapperError free(buffer_handle_t imported);

    MapperError lock(buffer_handle_t imported, uint64_t usage, const MapperRect& region,
                     void*& data);
    MapperError lockYCbCr(buffer_handle_t imported, uint64_t usage, const MapperRect& region,
                          MapperLayout& layout);
    MapperError unlock(buffer_handle_t imported);

    /** The geometry of an imported buffer. */
    std::optional<BufferGeometry> geometryOf(buffer_handle_t imported);

    MapperCounters counters();
    void failLock(int status, int skip);

private:
    /**
     * Identifies a file: device, inode and time of birth. The last one matters because a kernel may
     * number inodes with 32 bits only and use a number again; it is 0 where the kernel does not
     * know it.
     */
    using FileId = std::array<uint64_t, 5>;

    struct Import {
        std::shared_ptr<MemoryMap> memory;
        UniqueHandle clone;  // whose address is the imported handle
        FileId file;
        BufferGeometry geometry;
        int locks = 0;
    };

    MapperError importLocked(const native_handle_t* raw, buffer_handle_t& imported)
        REQUIRES(mMutex);
    std::shared_ptr<MemoryMap> mapLocked(int fd, size_t needed, FileId& file, MapperError& error)
        REQUIRES(mMutex);
    MapperError lockLocked(Import* found, uint64_t usage) REQUIRES(mMutex);
    Import* findLocked(buffer_handle_t imported) REQUIRES(mMutex);
    MapperError countLocked(MapperError error) REQUIRES(mMutex);
    /** Removes the file's entry when its memory is no longer mapped. */
    void forgetUnusedLocked(const FileId& file) REQUIRES(mMutex);

    std::mutex mMutex;
    std::map<buffer_handle_t, Import> mImports GUARDED_BY(mMutex);
    std::map<FileId, std::weak_ptr<MemoryMap>> mMemory GUARDED_BY(mMutex);
    MapperCounters mCounters GUARDED_BY(mMutex);
    int mFailStatus GUARDED_BY(mMutex) = 0;
    int mFailAfter GUARDED_BY(mMutex) = 0;
};

}  // namespace host::detail
