#include "model/files.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <string>
#include <utility>

#include "frame.h"

namespace testing_support {

namespace {

using android::hardware::hidl_vec;
using android::hardware::camera::device::V3_2::BufferStatus;
using product::CaptureRequest;
using product::CaptureResult;
using product::StreamBuffer;

uint64_t inodeOf(int fd) {
    struct stat file = {};
    return fstat(fd, &file) == 0 ? file.st_ino : 0;
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

StreamBuffer Files::recordOf(const PlainBuffer& plain) const {
    StreamBuffer buffer = {};
    buffer.streamId = plain.stream;
    buffer.bufferId = plain.id;
    buffer.buffer = handleOf(plain.handle);
    buffer.status = static_cast<BufferStatus>(plain.status);
    buffer.acquireFence = handleOf(plain.acquire);
    buffer.releaseFence = handleOf(plain.release);
    return buffer;
}

hidl_vec<StreamBuffer> Files::recordOf(const std::vector<PlainBuffer>& plain) const {
    hidl_vec<StreamBuffer> buffers;
    buffers.resize(plain.size());
    std::transform(plain.begin(), plain.end(), buffers.begin(),
                   [this](const PlainBuffer& buffer) { return recordOf(buffer); });
    return buffers;
}

CaptureRequest Files::recordOf(const PlainRequest& plain) const {
    CaptureRequest request = {};
    request.frameNumber = plain.frame;
    request.fmqSettingsSize = plain.fmqSize;
    request.settings = std::vector<uint8_t>(plain.settings.begin(), plain.settings.end());
    request.inputBuffer = recordOf(plain.input);
    request.outputBuffers = recordOf(plain.outputs);
    return request;
}

CaptureResult Files::recordOf(const PlainResult& plain) const {
    CaptureResult result = {};
    result.frameNumber = plain.frame;
    result.fmqResultSize = plain.fmqSize;
    result.result = std::vector<uint8_t>(plain.metadata.begin(), plain.metadata.end());
    result.outputBuffers = recordOf(plain.outputs);
    result.inputBuffer = recordOf(plain.input);
    result.partialResult = plain.partial;
    return result;
}

PlainBuffer Files::plainOf(const StreamBuffer& buffer) const {
    return {buffer.streamId,
            buffer.bufferId,
            nameOf(buffer.buffer.getNativeHandle()),
            static_cast<uint32_t>(buffer.status),
            nameOf(buffer.acquireFence.getNativeHandle()),
            nameOf(buffer.releaseFence.getNativeHandle())};
}

PlainRequest Files::plainOf(const CaptureRequest& request) const {
    return {request.frameNumber,
            request.fmqSettingsSize,
            {request.settings.begin(), request.settings.end()},
            plainOf(request.inputBuffer),
            plainOf(request.outputBuffers)};
}

PlainResult Files::plainOf(const CaptureResult& result) const {
    return {result.frameNumber,
            result.fmqResultSize,
            {result.result.begin(), result.result.end()},
            plainOf(result.outputBuffers),
            plainOf(result.inputBuffer),
            result.partialResult};
}

std::vector<PlainBuffer> Files::plainOf(const hidl_vec<StreamBuffer>& buffers) const {
    std::vector<PlainBuffer> plain;
    for (const StreamBuffer& buffer : buffers)
        plain.push_back(plainOf(buffer));
    return plain;
}

}  // namespace testing_support
