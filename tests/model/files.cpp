#include <sys/mman.h>
#include <sys/stat.h>

#include <algorithm>
#include <utility>

#include "frame.h"
#include "model/session_driver.h"

namespace testing_support {

namespace {

uint64_t inodeOf(int fd) {
    struct stat file = {};
    return fstat(fd, &file) == 0 ? file.st_ino : 0;
}

host::UniqueHandle handleWith(int descriptors, int integers) {
    host::UniqueHandle handle(native_handle_create(descriptors, integers));
    for (int i = 0; i < descriptors; ++i)
        handle->data[i] = memfd_create("other", MFD_CLOEXEC);
    return handle;
}

host::Buffer memoryOf(kit::FrameSize size, uint32_t stride, host::ChromaOrder order,
                      uint32_t step) {
    host::BufferGeometry geometry;
    geometry.stride = stride;
    geometry.order = order;
    geometry.chromaStep = step;
    return kit::allocate(size, geometry);
}

}  // namespace

Files::Files() {
    using host::ChromaOrder;
    mBuffers.push_back(memoryOf({8, 6}, 9, ChromaOrder::CbFirst, 2));
    mBuffers.push_back(memoryOf({8, 6}, 0, ChromaOrder::CrFirst, 2));
    mBuffers.push_back(memoryOf({6, 4}, 8, ChromaOrder::CbFirst, 2));
    mBuffers.push_back(memoryOf({8, 6}, 0, ChromaOrder::CbFirst, 1));
    for (size_t i = 0; i < kMemories; ++i)
        add(static_cast<File>('A' + i), mBuffers[i].handle());
    for (const File fence : {'f', 'g'}) {
        mOthers.push_back(handleWith(1, 0));
        add(fence, mOthers.back().get());
    }
    mOthers.push_back(handleWith(0, 0));
    add(kEmpty, mOthers.back().get());
    mOthers.push_back(handleWith(4, 2));
    add(kFour, mOthers.back().get());
    mOthers.push_back(host::UniqueHandle(native_handle_clone(mBuffers[0].handle())));
    close(std::exchange(mOthers.back()->data[0], -1));
    add(kBroken, mOthers.back().get());
}

void Files::add(File name, const native_handle_t* handle) {
    mEntries.push_back({name, handle->numFds > 0 ? inodeOf(handle->data[0]) : 0, handle});
}

const Files::Entry* Files::entryOf(File name) const {
    const auto found = std::find_if(mEntries.begin(), mEntries.end(),
                                    [name](const Entry& entry) { return entry.name == name; });
    return found != mEntries.end() ? &*found : nullptr;
}

const native_handle_t* Files::handleOf(File file) const {
    const Entry* const entry = entryOf(file);
    return entry != nullptr ? entry->handle : nullptr;
}

File Files::nameOf(const native_handle_t* handle) const {
    if (handle == nullptr) return kNoHandle;
    const uint64_t inode = handle->numFds > 0 ? inodeOf(handle->data[0]) : 0;
    for (const auto& [name, itsInode, original] : mEntries) {
        if (inode != itsInode || name == kBroken) continue;
        const bool isDuplicate = handle != original && handle->numFds == original->numFds &&
                                 handle->numInts == original->numInts &&
                                 std::equal(&original->data[original->numFds],
                                            &original->data[original->numFds + original->numInts],
                                            &handle->data[handle->numFds]) &&
                                 (inode == 0 || handle->data[0] != original->data[0]);
        return isDuplicate ? name : '?';
    }
    return '?';
}

Memories Files::memories() const {
    Memories memories;
    for (size_t i = 0; i < kMemories; ++i) {
        memories[i].geometry = mBuffers[i].geometry();
        memories[i].bytes.assign(mBuffers[i].bytes(), mBuffers[i].bytes() + mBuffers[i].size());
    }
    return memories;
}

}  // namespace testing_support
