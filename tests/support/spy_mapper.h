#pragma once

#include <android/hardware/graphics/mapper/2.0/IMapper.h>
#include <android/hardware/graphics/mapper/3.0/IMapper.h>

#include <algorithm>
#include <array>
#include <functional>
#include <utility>

#include "host/mapper.h"

namespace testing_support {

/** What a spy is told to do, and what it has seen, whatever the mapper's version. */
struct Spied {
    /** Asked in each call: above 0 it answers with this error, and all the same gives what there
     * is; below it fails on the way, or with -2 does not answer. */
    std::function<int()> fault;
    android::hardware::hidl_handle releaseFence;
    std::function<void()> during;         ///< runs once, inside the next call
    std::function<void(void*)> onImport;  ///< told of each, null for a failed one
    std::function<void(void*)> onFree;    ///< told before it happens

    /** The last lock: usage, left, top, width, height, and whether it had an acquire fence. */
    std::array<int64_t, 6> locked = {};
};

/** A mapper that passes calls on to the real one. What lets go of something does so whatever it is
 * told. For one thread at a time. */
template <typename IMapper, typename Error>
class SpyMapper : public IMapper, public Spied {
public:
    using Rect = typename IMapper::Rect;
    using Handle = android::hardware::hidl_handle;
    template <typename T>
    using Return = android::hardware::Return<T>;

    explicit SpyMapper(android::sp<IMapper> real) : mReal(std::move(real)) {}

    Return<void> importBuffer(const Handle& raw,
                              typename IMapper::importBuffer_cb answer) override {
        const int told = ask();
        if (told != 0) {
            if (told != -2) answer(Error(std::max(told, 0)), this);
            return statusOf(told);
        }
        return mReal->importBuffer(raw, [&](Error answered, void* buffer) {
            if (onImport) onImport(buffer);
            answer(answered, buffer);
        });
    }

    Return<Error> freeBuffer(void* buffer) override {
        const int told = ask();
        if (onFree) onFree(buffer);
        const Error answered = mReal->freeBuffer(buffer);
        if (told == -1) return statusOf(told);
        return told > 0 ? Error(told) : answered;
    }

    Return<void> lock(void* buffer, uint64_t usage, const Rect& region, const Handle& fence,
                      typename IMapper::lock_cb answer) override {
        const int told = askIn(usage, region, fence);
        if (told < 0) return statusOf(told);
        return mReal->lock(buffer, usage, region, fence, with(told, answer));
    }

    Return<void> lockYCbCr(void* buffer, uint64_t usage, const Rect& region, const Handle& fence,
                           typename IMapper::lockYCbCr_cb answer) override {
        const int told = askIn(usage, region, fence);
        if (told < 0) return statusOf(told);
        return mReal->lockYCbCr(buffer, usage, region, fence, with(told, answer));
    }

    Return<void> unlock(void* buffer, typename IMapper::unlock_cb answer) override {
        const int told = ask();
        mReal->unlock(buffer, [&](Error answered, const Handle& /*fence*/) {
            if (told >= 0) with(told, answer)(answered, releaseFence);
        });
        return statusOf(told);
    }

private:
    int ask() {
        if (const auto once = std::exchange(during, nullptr)) once();
        return fault ? fault() : 0;
    }
    int askIn(uint64_t usage, const Rect& region, const Handle& fence) {
        const auto [left, top, width, height] = region;
        locked = {static_cast<int64_t>(usage),       left, top, width, height,
                  fence.getNativeHandle() != nullptr};
        return ask();
    }
    template <typename Answer>
    static auto with(int told, const Answer& answer) {
        return [=](Error answered, const auto&... rest) {
            answer(told > 0 ? Error(told) : answered, rest...);
        };
    }
    static android::hardware::Status statusOf(int told) {
        using android::hardware::Status;
        return told == -1 ? Status::fromStatusT(android::DEAD_OBJECT, "gone") : Status::ok();
    }

    const android::sp<IMapper> mReal;
};

namespace mapper2 = android::hardware::graphics::mapper::V2_0;
namespace mapper3 = android::hardware::graphics::mapper::V3_0;
using SpyMapper2 = SpyMapper<mapper2::IMapper, mapper2::Error>;
using SpyMapper3 = SpyMapper<mapper3::IMapper, mapper3::Error>;

/** The mapper that the session's importer meets in this program; in place before any test. */
inline SpyMapper3& sessionMapper() {
    static auto* const spy = new android::sp<SpyMapper3>(new SpyMapper3(host::realMapper3()));
    return **spy;
}

}  // namespace testing_support
