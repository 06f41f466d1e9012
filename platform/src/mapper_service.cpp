#include <android-base/thread_annotations.h>
#include <android/hardware/graphics/mapper/2.0/IMapper.h>
#include <android/hardware/graphics/mapper/3.0/IMapper.h>

#include <mutex>
#include <type_traits>

#include "buffer_mapper.h"
#include "host/mapper.h"

namespace mapper2 = android::hardware::graphics::mapper::V2_0;
namespace mapper3 = android::hardware::graphics::mapper::V3_0;

namespace {

using android::sp;
using android::hardware::hidl_handle;
using android::hardware::Return;
using android::hardware::Void;
using host::detail::BufferMapper;
using host::detail::MapperError;
using host::detail::MapperLayout;

/** The real mapper as one of the two versions, whose types differ in name only. */
template <typename IMapper, typename Error, typename YCbCrLayout>
class MapperService : public IMapper {
public:
    using Rect = typename IMapper::Rect;

    Return<void> importBuffer(const hidl_handle& rawHandle,
                              typename IMapper::importBuffer_cb callback) override {
        buffer_handle_t imported = nullptr;
        const MapperError error = BufferMapper::get().import(rawHandle, imported);
        callback(toError(error), const_cast<native_handle_t*>(imported));  // NOLINT: opaque there
        return Void();
    }

    Return<Error> freeBuffer(void* buffer) override {
        return toError(BufferMapper::get().free(toHandle(buffer)));
    }

    Return<void> lock(void* buffer, uint64_t cpuUsage, const Rect& region,
                      const hidl_handle& /*acquireFence*/,
                      typename IMapper::lock_cb callback) override {
        void* data = nullptr;
        const MapperError error =
            BufferMapper::get().lock(toHandle(buffer), cpuUsage, toRect(region), data);
        if constexpr (std::is_same_v<IMapper, mapper3::IMapper>) {
            callback(toError(error), data, -1, -1);  // planar: neither number means anything
        } else {
            callback(toError(error), data);
        }
        return Void();
    }

    Return<void> lockYCbCr(void* buffer, uint64_t cpuUsage, const Rect& region,
                           const hidl_handle& /*acquireFence*/,
                           typename IMapper::lockYCbCr_cb callback) override {
        MapperLayout layout{};
        const MapperError error =
            BufferMapper::get().lockYCbCr(toHandle(buffer), cpuUsage, toRect(region), layout);
        callback(toError(error), YCbCrLayout{layout.y, layout.cb, layout.cr, layout.yStride,
                                             layout.cStride, layout.chromaStep});
        return Void();
    }

    Return<void> unlock(void* buffer, typename IMapper::unlock_cb callback) override {
        callback(toError(BufferMapper::get().unlock(toHandle(buffer))), hidl_handle());
        return Void();
    }

private:
    static Error toError(MapperError error) { return static_cast<Error>(error); }
    static buffer_handle_t toHandle(void* buffer) { return static_cast<buffer_handle_t>(buffer); }
    static host::detail::MapperRect toRect(const Rect& region) {
        return {region.left, region.top, region.width, region.height};
    }
};

using MapperService2 = MapperService<mapper2::IMapper, mapper2::Error, mapper2::YCbCrLayout>;
using MapperService3 = MapperService<mapper3::IMapper, mapper3::Error, mapper3::YCbCrLayout>;

/** The services of this process. Never destroyed: a mapper may be asked for while it exits. */
struct Registry {
    std::mutex mutex;
    sp<mapper3::IMapper> v3 GUARDED_BY(mutex) = host::realMapper3();
    sp<mapper2::IMapper> v2 GUARDED_BY(mutex) = host::realMapper2();
    int asked3 GUARDED_BY(mutex) = 0;
    int asked2 GUARDED_BY(mutex) = 0;
};

Registry& registry() {
    static auto* const instance = new Registry;
    return *instance;
}

}  // namespace

namespace host {

sp<mapper3::IMapper> realMapper3() {
    static auto* const service = new sp<mapper3::IMapper>(new MapperService3);
    return *service;
}

sp<mapper2::IMapper> realMapper2() {
    static auto* const service = new sp<mapper2::IMapper>(new MapperService2);
    return *service;
}

struct ScopedMapper::Saved {
    sp<mapper3::IMapper> v3;
    sp<mapper2::IMapper> v2;
    int asked3;
    int asked2;
};

ScopedMapper::ScopedMapper(sp<mapper3::IMapper> v3, sp<mapper2::IMapper> v2)
    : mSaved(new Saved{std::move(v3), std::move(v2), 0, 0}) {
    Registry& r = registry();
    const std::lock_guard<std::mutex> lock(r.mutex);
    std::swap(r.v3, mSaved->v3);
    std::swap(r.v2, mSaved->v2);
    mSaved->asked3 = r.asked3;
    mSaved->asked2 = r.asked2;
}

ScopedMapper::~ScopedMapper() {
    Registry& r = registry();
    const std::lock_guard<std::mutex> lock(r.mutex);
    std::swap(r.v3, mSaved->v3);
    std::swap(r.v2, mSaved->v2);
}

int ScopedMapper::asked3() const {
    const std::lock_guard<std::mutex> lock(registry().mutex);
    return registry().asked3 - mSaved->asked3;
}

int ScopedMapper::asked2() const {
    const std::lock_guard<std::mutex> lock(registry().mutex);
    return registry().asked2 - mSaved->asked2;
}

}  // namespace host

namespace android::hardware::graphics::mapper {

const char* V2_0::IMapper::descriptor = "android.hardware.graphics.mapper@2.0::IMapper";
const char* V3_0::IMapper::descriptor = "android.hardware.graphics.mapper@3.0::IMapper";

sp<V3_0::IMapper> V3_0::IMapper::getService(const std::string& serviceName, bool /*getStub*/) {
    Registry& r = registry();
    const std::lock_guard<std::mutex> lock(r.mutex);
    ++r.asked3;
    return serviceName == "default" ? r.v3 : nullptr;
}

sp<V2_0::IMapper> V2_0::IMapper::getService(const std::string& serviceName, bool /*getStub*/) {
    Registry& r = registry();
    const std::lock_guard<std::mutex> lock(r.mutex);
    ++r.asked2;
    return serviceName == "default" ? r.v2 : nullptr;
}

}  // namespace android::hardware::graphics::mapper
