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

/** A pipe's ends may cross to another process. */
host::UniqueHandle handleOfPipes(int count) {
    host::UniqueHandle handle(native_handle_create(2 * count, 0));
    for (int i = 0; i < count; ++i)
        pipe2(&handle->data[2 * i], O_CLOEXEC);
    return handle;
}

}  // namespace

FileSet::FileSet() {
    using host::ChromaOrder;
    const host::BufferGeometry geometries[] = {{8, 6, 9},
                                               {8, 6, 0, 0, ChromaOrder::CrFirst},
                                               {6, 4, 8},
                                               {8, 6, 0, 0, ChromaOrder::CbFirst, 1}};
    for (const host::BufferGeometry& geometry : geometries) {
        const auto name = static_cast<File>('A' + memories.size());
        memories.push_back(host::Buffer::allocate(geometry).value());
        handles[name].reset(native_handle_clone(memories.back().handle()));
    }
    handles['f'] = handleOfPipes(1);
    handles['g'] = handleOfPipes(1);
    handles[kEmpty] = handleOfPipes(0);
    handles[kFour] = handleOfPipes(2);
    for (const auto& [name, handle] : handles)
        mNames[inodeOf(handle.get())] = name;
    handles[kNoHandle] = nullptr;
    handles[kBroken].reset(native_handle_clone(memories[0].handle()));
    close(std::exchange(handles[kBroken]->data[0], -1));
}

File FileSet::nameOf(const native_handle_t* handle) const {
    if (handle == nullptr) return kNoHandle;
    const auto found = mNames.find(inodeOf(handle));
    if (found == mNames.end()) return '?';
    const native_handle_t* const original = handles.at(found->second).get();
    const int* const integers = &original->data[original->numFds];
    const bool isDuplicate =
        handle != original && handle->numFds == original->numFds &&
        handle->numInts == original->numInts &&
        std::equal(integers, integers + original->numInts, &handle->data[handle->numFds]) &&
        (handle->numFds == 0 || handle->data[0] != original->data[0]);
    return isDuplicate ? found->second : '?';
}

}  // namespace testing_support
