#pragma once

#include <algorithm>
#include <map>
#include <memory>
#include <optional>
#include <utility>

#include "frame.h"
#include "host/mapper.h"
#include "model/files.h"
#include "model/operands.h"

namespace testing_support {

using android::hardware::hidl_handle;

/**
 * The platform as the session meets it: handles that are duplicated while the descriptors last, and
 * imported buffers. Plain and slow.
 */
class PlatformModel {
public:
    explicit PlatformModel(const Files& files) : mFiles(files) {}

    /** Whether the copy of a handle can be made; else it is empty. */
    bool duplicate(hidl_handle& copy) {
        const bool isMade = duplicate(mFiles.nameOf(copy));
        if (!isMade) copy = nullptr;
        return isMade;
    }
    bool duplicateFences(product::StreamBuffer& copy) {
        const bool isMade = duplicate(copy.acquireFence);
        return duplicate(copy.releaseFence) && isMade;
    }
    bool duplicateAll(product::StreamBuffer& copy) {
        const bool isMade = duplicate(copy.buffer);
        return duplicateFences(copy) && isMade;
    }
    /** 0, or the mapper's error. */
    int import(File file) {
        int error = kBadBuffer;
        if (file >= 'A' && file <= 'D') {
            if (mImports[file] == 0) ++counters.maps;
            error = duplicate(file) ? 0 : kNoResources;
            if (error == 0 && ++mImports[file] == 1) ++counters.mappings;
        }
        ++(error == 0 ? counters.imports : counters.refusals);
        return error;
    }
    void free(File file) {
        ++counters.frees;
        if (--mImports[file] == 0) --counters.mappings;
    }
    std::shared_ptr<PlainGraphicBuffer> wrap(File file, const PlainGraphicBuffer& wanted) {
        PlainGraphicBuffer wrapped = {};
        wrapped.initCheck = import(file);
        if (wrapped.initCheck == 0) {
            const kit::FrameSize size = kit::sizeOf(memoryOf(file));
            const bool isInside = wanted.width <= size.width && wanted.height <= size.height;
            if (isInside && wanted.width > 0 && wanted.height > 0) {
                wrapped = wanted;
                wrapped.file = file;
            } else {
                free(file);
                wrapped.initCheck = kBadValue;
            }
        }
        return {new PlainGraphicBuffer(wrapped), [this](PlainGraphicBuffer* buffer) {
                    if (buffer->file != kNoHandle) free(buffer->file);
                    delete buffer;
                }};
    }

    int lock(const PlainGraphicBuffer& buffer) {
        int error = std::exchange(nextLockError, 0);
        if (error == 0 && buffer.file == kNoHandle) error = kBadBuffer;
        if (error == 0 && (buffer.usage & kProcessor) == 0) error = kBadValue;
        ++(error == 0 ? counters.locks : counters.refusals);
        return error;
    }
    int unlock() {
        ++counters.unlocks;
        return std::exchange(nextUnlockError, 0);
    }
    int chromaStep(const PlainGraphicBuffer& buffer) const {
        return static_cast<int>(memoryOf(buffer.file).geometry().chromaStep);
    }
    void turn(const PlainGraphicBuffer& buffer) {
        const host::Buffer& memory = memoryOf(buffer.file);
        const kit::FrameSize size = {buffer.width, buffer.height};
        const auto rowAt = [&](uint32_t row) {
            const auto luma = static_cast<uint32_t>(size.height);
            return row < luma ? memory.lumaRow(row) : memory.chromaRow(row - luma);
        };
        kit::Frame frame;
        for (uint32_t row = 0; row < size.rows(); ++row)
            frame.insert(frame.end(), rowAt(row), rowAt(row) + size.width);
        const kit::Frame turned = kit::turnedBy180(frame, size);
        for (uint32_t row = 0; row < size.rows(); ++row)
            std::copy_n(&turned[static_cast<size_t>(size.width) * row], size.width, rowAt(row));
    }

    /** How many descriptors the record's handles, or the imports, have. */
    template <typename Record>
    int descriptorsOf(const Record& record) const {
        int sum = descriptorsIn(record.inputBuffer);
        for (const product::StreamBuffer& buffer : record.outputBuffers)
            sum += descriptorsIn(buffer);
        return sum;
    }
    int descriptors() const {
        int sum = 0;
        for (const auto& [file, imports] : mImports)
            sum += imports;
        return sum;
    }

    int duplicatesLeft = kNoLimit;
    int nextLockError = 0;
    int nextUnlockError = 0;
    host::MapperCounters counters = host::mapperCounters();

private:
    static constexpr int kBadBuffer = 2;
    static constexpr int kBadValue = 3;
    static constexpr int kNoResources = 5;
    static constexpr uint32_t kProcessor = 0xff;

    bool duplicate(File file) {
        const int wanted = descriptorsOf(file);
        if (file == kBroken) return false;
        const bool isMade = duplicatesLeft >= wanted;
        duplicatesLeft = isMade ? duplicatesLeft - wanted : 0;
        return isMade;
    }
    int descriptorsOf(File file) const {
        return file != kNoHandle ? mFiles.handles().at(file)->numFds : 0;
    }
    int descriptorsIn(const product::StreamBuffer& buffer) const {
        return descriptorsOf(mFiles.nameOf(buffer.buffer)) +
               descriptorsOf(mFiles.nameOf(buffer.acquireFence)) +
               descriptorsOf(mFiles.nameOf(buffer.releaseFence));
    }
    const host::Buffer& memoryOf(File file) const {
        return mFiles.modelsMemories()[static_cast<size_t>(file - 'A')];
    }

    const Files& mFiles;
    std::map<File, int> mImports;
};

}  // namespace testing_support
