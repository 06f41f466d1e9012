#include "model/files.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <utility>

#include "frame.h"

namespace testing_support {

namespace {

uint64_t inodeOf(const native_handle_t* handle) {
    struct stat file = {};
    return handle->numFds > 0 && fstat(handle->data[0], &file) == 0 ? file.st_ino : 0;
}

host::UniqueHandle handleWith(int descriptors, int integers) {
    host::UniqueHandle handle(native_handle_create(descriptors, integers));
    for (int i = 0; i < descriptors; ++i) {
        int pipe[2] = {-1, -1};
        pipe2(pipe, O_CLOEXEC);
        handle->data[i] = pipe[0];
        close(pipe[1]);
    }
    return handle;
}

Memories allocateAll() {
    using host::ChromaOrder;
    Memories memories;
    const auto add = [&](kit::FrameSize size, uint32_t stride, ChromaOrder order, uint32_t step) {
        host::BufferGeometry geometry;
        geometry.stride = stride;
        geometry.order = order;
        geometry.chromaStep = step;
        memories.push_back(kit::allocate(size, geometry));
    };
    add({8, 6}, 9, ChromaOrder::CbFirst, 2);
    add({8, 6}, 0, ChromaOrder::CrFirst, 2);
    add({6, 4}, 8, ChromaOrder::CbFirst, 2);
    add({8, 6}, 0, ChromaOrder::CbFirst, 1);
    return memories;
}

}  // namespace

Files::Files() : mMemories(allocateAll()), mModelsMemories(allocateAll()) {
    for (size_t i = 0; i < mMemories.size(); ++i) {
        host::UniqueHandle handle(native_handle_clone(mMemories[i].handle()));
        add(static_cast<File>('A' + i), std::move(handle));
    }
    add('f', handleWith(1, 0));
    add('g', handleWith(1, 0));
    add(kEmpty, handleWith(0, 0));
    add(kFour, handleWith(4, 2));
    host::UniqueHandle broken(native_handle_clone(mMemories[0].handle()));
    close(std::exchange(broken->data[0], -1));
    add(kBroken, std::move(broken));
    mNames.emplace(0, kEmpty);
}

void Files::add(File name, host::UniqueHandle handle) {
    host::UniqueHandle onPaper = handleWith(0, 1);
    onPaper->data[0] = name;
    mModelsHandles[name] = onPaper.get();
    mHandles[name] = handle.get();
    if (const uint64_t inode = inodeOf(handle.get())) mNames[inode] = name;
    mOwned.push_back(std::move(onPaper));
    mOwned.push_back(std::move(handle));
}

File Files::nameOf(const native_handle_t* handle) const {
    if (handle == nullptr) return kNoHandle;
    if (handle->numFds == 0 && handle->numInts == 1) return static_cast<File>(handle->data[0]);
    const auto found = mNames.find(inodeOf(handle));
    if (found == mNames.end()) return '?';
    const native_handle_t* const original = mHandles.at(found->second);
    const int* const integers = &original->data[original->numFds];
    const bool isDuplicate =
        handle != original && handle->numFds == original->numFds &&
        handle->numInts == original->numInts &&
        std::equal(integers, integers + original->numInts, &handle->data[handle->numFds]) &&
        (handle->numFds == 0 || handle->data[0] != original->data[0]);
    return isDuplicate ? found->second : '?';
}

}  // namespace testing_support
