#include <algorithm>
#include <utility>

#include "frame.h"
#include "model/session_model.h"

namespace testing_support {

namespace {

constexpr int kBadBuffer = 2;
constexpr int kBadValue = 3;
constexpr int kNoResources = 5;
constexpr uint32_t kProcessor = 0xff;

}  // namespace

File PlatformModel::duplicate(File file) {
    if (file == kBroken) return kNoHandle;
    if (!duplicatesLeft) return file;
    const int wanted = descriptors(file);
    const bool isMade = *duplicatesLeft >= wanted;
    *duplicatesLeft = isMade ? *duplicatesLeft - wanted : 0;
    return isMade ? file : kNoHandle;
}

void PlatformModel::duplicateHandles(PlainBuffer& buffer) {
    buffer.handle = duplicate(buffer.handle);
    buffer.acquire = duplicate(buffer.acquire);
    buffer.release = duplicate(buffer.release);
}

int PlatformModel::import(File file) {
    int error = kBadBuffer;
    if (isMemory(file)) {
        int& imports = mImports[static_cast<size_t>(file - 'A')];
        if (imports == 0) ++mCalls.maps;
        error = duplicate(file) == file ? 0 : kNoResources;
        imports += error == 0 ? 1 : 0;
    }
    ++(error == 0 ? mCalls.imports : mCalls.refusals);
    return error;
}

void PlatformModel::free(File file) {
    ++mCalls.frees;
    --mImports[static_cast<size_t>(file - 'A')];
}

std::shared_ptr<PlainGraphicBuffer> PlatformModel::wrap(File file,
                                                        const PlainGraphicBuffer& wanted) {
    PlainGraphicBuffer wrapped = {};
    wrapped.initCheck = import(file);
    if (wrapped.initCheck == 0) {
        const host::BufferGeometry& real = memoryOf(file).geometry;
        if (wanted.width == 0 || wanted.height == 0 ||
            wanted.width > static_cast<int>(real.width) ||
            wanted.height > static_cast<int>(real.height)) {
            free(file);
            wrapped.initCheck = kBadValue;
        } else {
            wrapped = wanted;
            wrapped.file = file;
        }
    }
    return {new PlainGraphicBuffer(wrapped), [this](PlainGraphicBuffer* buffer) {
                if (buffer->file != kNoHandle) free(buffer->file);
                delete buffer;
            }};
}

int PlatformModel::lock(const PlainGraphicBuffer& buffer) {
    int error = std::exchange(nextLockError, 0);
    if (error == 0 && buffer.file == kNoHandle) error = kBadBuffer;
    if (error == 0 && (buffer.usage & kProcessor) == 0) error = kBadValue;
    ++(error == 0 ? mCalls.locks : mCalls.refusals);
    return error;
}

int PlatformModel::unlock() {
    ++mCalls.unlocks;
    return std::exchange(nextUnlockError, 0);
}

int PlatformModel::chromaStep(File file) const {
    return static_cast<int>(memoryOf(file).geometry.chromaStep);
}

void PlatformModel::turn(const PlainGraphicBuffer& buffer) {
    PlainMemory& memory = mMemories[static_cast<size_t>(buffer.file - 'A')];
    const kit::FrameSize size = {buffer.width, buffer.height};
    const host::BufferGeometry& real = memory.geometry;
    const auto rowAt = [&](size_t row) {
        const auto luma = static_cast<size_t>(size.height);
        const size_t offset =
            row < luma ? row * real.stride
                       : size_t{real.stride} * real.height + (row - luma) * real.chromaStride;
        return memory.bytes.begin() + static_cast<std::ptrdiff_t>(offset);
    };
    kit::Frame frame;
    for (size_t row = 0; row < size.rows(); ++row)
        frame.insert(frame.end(), rowAt(row), rowAt(row) + size.width);
    const kit::Frame turned = kit::turnedBy180(frame, size);
    for (size_t row = 0; row < size.rows(); ++row)
        std::copy_n(turned.begin() + static_cast<std::ptrdiff_t>(row) * size.width, size.width,
                    rowAt(row));
}

void PlatformModel::paint(size_t memory, const Operation& operation) {
    std::vector<uint8_t>& bytes = mMemories[memory].bytes;
    for (size_t i = 0; i < bytes.size(); ++i)
        bytes[i] = paintOf(operation, i);
}

int PlatformModel::descriptors(File file) {
    if (file == kFour) return 4;
    return file == kNoHandle || file == kEmpty ? 0 : 1;
}

int PlatformModel::descriptors() const {
    int sum = 0;
    for (const int imports : mImports)
        sum += imports;
    return sum;
}

MapperCalls PlatformModel::calls() const {
    MapperCalls calls = mCalls;
    for (const int imports : mImports)
        calls.mappings += imports > 0 ? 1 : 0;
    return calls;
}

uint64_t PlatformModel::bytesHash() const {
    uint64_t hash = 0;
    for (const PlainMemory& memory : mMemories)
        hash = hashOf(memory.bytes.data(), memory.bytes.size(), hash);
    return hash;
}

}  // namespace testing_support
