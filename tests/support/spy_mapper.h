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
 * answers with an error, fails on the way, or gives a release fence. For one thread at a time.
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
        pause();
        if (failTransport) return failure();
        return mReal->importBuffer(raw, [&](Error answered, void* buffer) {
            imported.push_back(buffer);
            answer(error == Error::NONE ? answered : error, buffer);
        });
    }

    Return<Error> freeBuffer(void* buffer) override {
        pause();
        freed.push_back(buffer);
        if (failTransport) return failure();
        return mReal->freeBuffer(buffer);
    }

    Return<void> lock(void* buffer, uint64_t cpuUsage, const Rect& lockRegion, const Handle& fence,
                      typename IMapper::lock_cb answer) override {
        pause();
        region = lockRegion;
        fences += fence.getNativeHandle() != nullptr ? 1 : 0;
        usage = cpuUsage;
        if (failTransport) return failure();
        return mReal->lock(buffer, cpuUsage, lockRegion, fence, answer);
    }

    Return<void> lockYCbCr(void* buffer, uint64_t cpuUsage, const Rect& lockRegion,
                           const Handle& fence, typename IMapper::lockYCbCr_cb answer) override {
        pause();
        region = lockRegion;
        fences += fence.getNativeHandle() != nullptr ? 1 : 0;
        usage = cpuUsage;
        if (failTransport) return failure();
        return mReal->lockYCbCr(buffer, cpuUsage, lockRegion, fence, answer);
    }

    Return<void> unlock(void* buffer, typename IMapper::unlock_cb answer) override {
        pause();
        if (failTransport) return failure();
        return mReal->unlock(buffer, [&](Error answered, const Handle& fence) {
            answer(answered, releaseFence.getNativeHandle() != nullptr ? releaseFence : fence);
        });
    }

    Error error = Error::NONE;  ///< for imports
    bool failTransport = false;
    Handle releaseFence;
    std::function<void()> during;  ///< runs once, inside the next call

    std::vector<void*> imported;
    std::vector<void*> freed;
    int fences = 0;  ///< acquire fences that were not empty
    Rect region = {};
    uint64_t usage = 0;

private:
    void pause() {
        if (const auto once = std::exchange(during, nullptr)) once();
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
