#pragma once

#include <android/hardware/graphics/mapper/2.0/IMapper.h>
#include <android/hardware/graphics/mapper/3.0/IMapper.h>

#include <functional>
#include <utility>
#include <vector>

#include "host/mapper.h"

namespace testing_support {

/**
 * A mapper, 3.0 or 2.0, that passes calls on to the real one and remembers them. Told to, it
 * answers with an error, fails on the way, or gives a release fence. What lets go of something does
 * so even then. For one thread at a time.
 */
template <typename IMapper, typename Error, typename YCbCrLayout>
class SpyMapper : public IMapper {
public:
    using Rect = typename IMapper::Rect;
    using Handle = android::hardware::hidl_handle;
    template <typename T>
    using Return = android::hardware::Return<T>;

    explicit SpyMapper(android::sp<IMapper> real) : mReal(std::move(real)) {}

    Return<void> importBuffer(const Handle& raw,
                              typename IMapper::importBuffer_cb answer) override {
        const int told = pause();
        if (told < 0) return failure();
        if (told > 0) {
            answer(Error(told), nullptr);
            return {};
        }
        return mReal->importBuffer(raw, [&](Error answered, void* buffer) {
            imported.push_back(buffer);
            if (onImport) onImport(buffer);
            answer(answered, buffer);
        });
    }

    Return<Error> freeBuffer(void* buffer) override {
        const int told = pause();
        freed.push_back(buffer);
        if (onFree) onFree(buffer);
        const Error answered = mReal->freeBuffer(buffer);
        if (told < 0) return failure();
        return told > 0 ? Error(told) : answered;
    }

    Return<void> lock(void* buffer, uint64_t cpuUsage, const Rect& lockRegion, const Handle& fence,
                      typename IMapper::lock_cb answer) override {
        const int told = pause();
        region = lockRegion;
        fences += fence.getNativeHandle() != nullptr ? 1 : 0;
        usage = cpuUsage;
        if (told < 0) return failure();
        return mReal->lock(told > 0 ? nullptr : buffer, cpuUsage, lockRegion, fence,
                           [&](Error answered, auto... rest) {
                               answer(told > 0 ? Error(told) : answered, rest...);
                           });
    }

    Return<void> lockYCbCr(void* buffer, uint64_t cpuUsage, const Rect& lockRegion,
                           const Handle& fence, typename IMapper::lockYCbCr_cb answer) override {
        const int told = pause();
        region = lockRegion;
        fences += fence.getNativeHandle() != nullptr ? 1 : 0;
        usage = cpuUsage;
        if (told < 0) return failure();
        return mReal->lockYCbCr(told > 0 ? nullptr : buffer, cpuUsage, lockRegion, fence,
                                [&](Error answered, const YCbCrLayout& layout) {
                                    answer(told > 0 ? Error(told) : answered, layout);
                                });
    }

    Return<void> unlock(void* buffer, typename IMapper::unlock_cb answer) override {
        const int told = pause();
        Return<void> status = mReal->unlock(buffer, [&](Error answered, const Handle& fence) {
            if (told < 0) return;
            answer(told > 0 ? Error(told) : answered,
                   releaseFence.getNativeHandle() != nullptr ? releaseFence : fence);
        });
        if (told < 0) return failure();
        return status;
    }

    /** Asked in each call: above 0 it answers with this error, below it fails on the way. */
    std::function<int()> fault;
    Handle releaseFence;
    std::function<void()> during;         ///< runs once, inside the next call
    std::function<void(void*)> onImport;  ///< told of each, null for a failed one
    std::function<void(void*)> onFree;    ///< told before it happens

    std::vector<void*> imported;
    std::vector<void*> freed;
    int fences = 0;  ///< acquire fences that were not empty
    Rect region = {};
    uint64_t usage = 0;

private:
    int pause() {
        if (const auto once = std::exchange(during, nullptr)) once();
        return fault ? fault() : 0;
    }
    static android::hardware::Status failure() {
        return android::hardware::Status::fromStatusT(android::DEAD_OBJECT, "gone");
    }

    const android::sp<IMapper> mReal;
};

namespace mapper2 = android::hardware::graphics::mapper::V2_0;
namespace mapper3 = android::hardware::graphics::mapper::V3_0;
using SpyMapper2 = SpyMapper<mapper2::IMapper, mapper2::Error, mapper2::YCbCrLayout>;
using SpyMapper3 = SpyMapper<mapper3::IMapper, mapper3::Error, mapper3::YCbCrLayout>;

/** The mapper that the session's importer meets in this program; in place before any test. */
SpyMapper3& sessionMapper();

}  // namespace testing_support
