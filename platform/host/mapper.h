#pragma once

#include <android/hardware/graphics/mapper/2.0/IMapper.h>
#include <android/hardware/graphics/mapper/3.0/IMapper.h>

#include <cstdint>
#include <memory>

namespace host {

/**
 * Replaces the mappers in the service registry for the scope of this object; null is "no such
 * service". Otherwise the registry has the real mapper, as 3.0 and as 2.0. GraphicBuffer always
 * uses the real one. Scopes nest.
 */
class ScopedMapper {
public:
    ScopedMapper(android::sp<android::hardware::graphics::mapper::V3_0::IMapper> v3,
                 android::sp<android::hardware::graphics::mapper::V2_0::IMapper> v2);
    ~ScopedMapper();
    ScopedMapper(const ScopedMapper&) = delete;
    ScopedMapper& operator=(const ScopedMapper&) = delete;

    /** How often the registry was asked for a version in this scope. */
    int asked3() const;
    int asked2() const;

private:
    struct Saved;
    const std::unique_ptr<Saved> mSaved;
};

/** The real mapper, for a fake that passes some calls on to it. */
android::sp<android::hardware::graphics::mapper::V3_0::IMapper> realMapper3();
android::sp<android::hardware::graphics::mapper::V2_0::IMapper> realMapper2();

/** What the real mapper has done in this process, for services and graphics buffers together. */
struct MapperCounters {
    int64_t imports = 0;   ///< handles imported
    int64_t frees = 0;     ///< handles freed
    int64_t locks = 0;     ///< locks granted
    int64_t unlocks = 0;   ///< unlocks of a locked buffer
    int64_t maps = 0;      ///< mmap calls
    int64_t refusals = 0;  ///< calls answered with an error
    int64_t mappings = 0;  ///< mappings alive now
};

MapperCounters mapperCounters();

}  // namespace host
