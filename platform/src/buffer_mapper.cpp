#include "buffer_mapper.h"

#include <fcntl.h>
#include <hardware/gralloc.h>
#include <sys/stat.h>

#include <utility>

#include "host/buffer.h"

namespace host {

MapperCounters mapperCounters() {
    return detail::BufferMapper::get().counters();
}

void failLock(int status, int skip) {
    detail::BufferMapper::get().failLock(status, skip);
}

namespace detail {

namespace {

constexpr uint64_t kCpuUsage = GRALLOC_USAGE_SW_READ_MASK | GRALLOC_USAGE_SW_WRITE_MASK;

bool inside(const MapperRect& region, const BufferGeometry& geometry) {
    return region.left >= 0 && region.top >= 0 && region.width >= 0 && region.height >= 0 &&
           int64_t{region.left} + region.width <= int64_t{geometry.width} &&
           int64_t{region.top} + region.height <= int64_t{geometry.height};
}

/** A plain lock may also take the buffer as one row of bytes. Below 0 is more than any size. */
bool insideAsRow(const MapperRect& region, size_t size) {
    return region.left == 0 && region.top == 0 && region.height == 1 &&
           static_cast<size_t>(region.width) <= size;
}

}  // namespace

BufferMapper& BufferMapper::get() {
    static auto* const instance = new BufferMapper;
    return *instance;
}

MapperError BufferMapper::import(const native_handle_t* raw, buffer_handle_t& imported) {
    const std::lock_guard<std::mutex> lock(mMutex);
    return countLocked(importLocked(raw, imported));
}

MapperError BufferMapper::importLocked(const native_handle_t* raw, buffer_handle_t& imported) {
    const std::optional<BufferGeometry> geometry = parse(raw);
    if (!geometry) return MapperError::BAD_BUFFER;
    MapperError error = MapperError::NONE;
    FileId file{};
    std::shared_ptr<MemoryMap> memory =
        mapLocked(raw->data[0], planesOf(*geometry).total, file, error);
    if (memory == nullptr) return error;
    UniqueHandle clone(native_handle_clone(raw));
    if (clone == nullptr) {
        memory.reset();
        forgetUnusedLocked(file);
        return MapperError::NO_RESOURCES;
    }
    imported = clone.get();
    mImports[imported] = Import{std::move(memory), std::move(clone), file, *geometry};
    ++mCounters.imports;
    return MapperError::NONE;
}

std::shared_ptr<MemoryMap> BufferMapper::mapLocked(int fd, size_t needed, FileId& file,
                                                   MapperError& error) {
    error = MapperError::BAD_BUFFER;
    const int seals = fcntl(fd, F_GET_SEALS);
    if (seals < 0 || (seals & F_SEAL_SHRINK) == 0) return nullptr;
    struct statx status {};
    if (statx(fd, "", AT_EMPTY_PATH, STATX_BASIC_STATS | STATX_BTIME, &status) != 0) return nullptr;
    const uint64_t size = status.stx_size;
    if (size < needed || size > kMaxBufferBytes) return nullptr;

    file = {status.stx_dev_major, status.stx_dev_minor, status.stx_ino,
            static_cast<uint64_t>(status.stx_btime.tv_sec), status.stx_btime.tv_nsec};
    std::weak_ptr<MemoryMap>& known = mMemory[file];
    std::shared_ptr<MemoryMap> memory = known.lock();
    if (memory != nullptr && memory->size() >= needed) return memory;
    memory = std::make_shared<MemoryMap>();
    if (!memory->map(fd, static_cast<size_t>(size))) {
        forgetUnusedLocked(file);
        return nullptr;
    }
    ++mCounters.maps;
    known = memory;
    return memory;
}

void BufferMapper::forgetUnusedLocked(const FileId& file) {
    const auto found = mMemory.find(file);
    if (found != mMemory.end() && found->second.expired()) mMemory.erase(found);
}

MapperError BufferMapper::free(buffer_handle_t imported) {
    const std::lock_guard<std::mutex> lock(mMutex);
    const auto found = mImports.find(imported);
    if (found == mImports.end()) return countLocked(MapperError::BAD_BUFFER);
    const FileId file = found->second.file;
    mImports.erase(found);
    forgetUnusedLocked(file);
    ++mCounters.frees;
    return MapperError::NONE;
}

MapperError BufferMapper::lock(buffer_handle_t imported, uint64_t usage, const MapperRect& region,
                               void*& data) {
    const std::lock_guard<std::mutex> lock(mMutex);
    Import* const found = findLocked(imported);
    if (found != nullptr && !inside(region, found->geometry) &&
        !insideAsRow(region, planesOf(found->geometry).total)) {
        return countLocked(MapperError::BAD_VALUE);
    }
    const MapperError error = lockLocked(found, usage);
    if (error == MapperError::NONE) data = found->memory->data();
    return error;
}

MapperError BufferMapper::lockYCbCr(buffer_handle_t imported, uint64_t usage,
                                    const MapperRect& region, MapperLayout& layout) {
    const std::lock_guard<std::mutex> lock(mMutex);
    Import* const found = findLocked(imported);
    if (found != nullptr && !inside(region, found->geometry)) {
        return countLocked(MapperError::BAD_VALUE);
    }
    const MapperError error = lockLocked(found, usage);
    if (error != MapperError::NONE) return error;
    uint8_t* const memory = found->memory->data();
    const PlaneOffsets planes = planesOf(found->geometry);
    layout.y = memory;
    layout.cb = memory + planes.cb;
    layout.cr = memory + planes.cr;
    layout.yStride = found->geometry.stride;
    layout.cStride = found->geometry.chromaStride;
    layout.chromaStep = found->geometry.chromaStep;
    return MapperError::NONE;
}

MapperError BufferMapper::lockLocked(Import* found, uint64_t usage) {
    if (mFailStatus != 0 && mFailAfter-- == 0) {
        return countLocked(static_cast<MapperError>(std::exchange(mFailStatus, 0)));
    }
    if (found == nullptr) return countLocked(MapperError::BAD_BUFFER);
    if ((usage & kCpuUsage) == 0) return countLocked(MapperError::BAD_VALUE);
    ++found->locks;
    ++mCounters.locks;
    return MapperError::NONE;
}

MapperError BufferMapper::unlock(buffer_handle_t imported) {
    const std::lock_guard<std::mutex> lock(mMutex);
    Import* const found = findLocked(imported);
    if (found == nullptr || found->locks == 0) return countLocked(MapperError::BAD_BUFFER);
    --found->locks;
    ++mCounters.unlocks;
    return MapperError::NONE;
}

std::optional<BufferGeometry> BufferMapper::geometryOf(buffer_handle_t imported) {
    const std::lock_guard<std::mutex> lock(mMutex);
    const Import* const found = findLocked(imported);
    return found != nullptr ? std::optional<BufferGeometry>(found->geometry) : std::nullopt;
}

BufferMapper::Import* BufferMapper::findLocked(buffer_handle_t imported) {
    const auto found = mImports.find(imported);
    return found != mImports.end() ? &found->second : nullptr;
}

MapperError BufferMapper::countLocked(MapperError error) {
    if (error != MapperError::NONE) ++mCounters.refusals;
    return error;
}

MapperCounters BufferMapper::counters() {
    const std::lock_guard<std::mutex> lock(mMutex);
    MapperCounters result = mCounters;
    result.mappings = static_cast<int64_t>(mMemory.size());
    return result;
}

void BufferMapper::failLock(int status, int skip) {
    const std::lock_guard<std::mutex> lock(mMutex);
    mFailStatus = status;
    mFailAfter = skip;
}

}  // namespace detail
}  // namespace host
