#include "model/files.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <utility>

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

}  // namespace

Files::Files() {
    using host::ChromaOrder;
    addMemory({8, 6}, 9, ChromaOrder::CbFirst, 2);
    addMemory({8, 6}, 0, ChromaOrder::CrFirst, 2);
    addMemory({6, 4}, 8, ChromaOrder::CbFirst, 2);
    addMemory({8, 6}, 0, ChromaOrder::CbFirst, 1);
    // A fence is of a kind that may cross to another process.
    addOther('f', handleWith(1, 0));
    addOther('g', handleWith(1, 0));
    addOther(kEmpty, handleWith(0, 0));
    addOther(kFour, handleWith(4, 2));
    host::UniqueHandle broken(native_handle_clone(sessions.memories[0].handle()));
    close(std::exchange(broken->data[0], -1));
    addOther(kBroken, std::move(broken));
}

void Files::addMemory(kit::FrameSize size, uint32_t stride, host::ChromaOrder order,
                      uint32_t step) {
    host::BufferGeometry geometry;
    geometry.stride = stride;
    geometry.order = order;
    geometry.chromaStep = step;
    for (FileSet* const set : {&sessions, &models}) {
        set->memories.push_back(kit::allocate(size, geometry));
        const auto name = static_cast<File>('A' + set->memories.size() - 1);
        add(*set, name, set->memories.back().handle());
    }
}

void Files::addOther(File name, host::UniqueHandle handle) {
    add(sessions, name, handle.get());
    add(models, name, handle.get());
    mOthers.push_back(std::move(handle));
}

void Files::add(FileSet& set, File name, const native_handle_t* handle) {
    set.handles[name] = handle;
    if (name != kBroken) mEntries[inodeOf(handle)] = {name, handle};
}

File Files::nameOf(const native_handle_t* handle) const {
    if (handle == nullptr) return kNoHandle;
    const auto found = mEntries.find(inodeOf(handle));
    if (found == mEntries.end()) return '?';
    const native_handle_t* const original = found->second.handle;
    const int* const integers = &original->data[original->numFds];
    const bool isDuplicate =
        handle != original && handle->numFds == original->numFds &&
        handle->numInts == original->numInts &&
        std::equal(integers, integers + original->numInts, &handle->data[handle->numFds]) &&
        (handle->numFds == 0 || handle->data[0] != original->data[0]);
    return isDuplicate ? found->second.name : '?';
}

}  // namespace testing_support
