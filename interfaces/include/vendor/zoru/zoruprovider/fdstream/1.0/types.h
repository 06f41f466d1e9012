#pragma once

#include <cstddef>
#include <cstdint>

namespace vendor::zoru::zoruprovider::fdstream::V1_0 {

/** What a notification tells. Values above the last are the provider's own. */
enum class FDNotifyType : uint32_t {
    SHUTTER = 0,
    ERROR = 1,
    PEOPLE_COUNT = 2,
};

/** One event of the provider, for the client. The session looks at none of it. */
struct FDNotifyMsg final {
    FDNotifyType type __attribute__((aligned(4)));
    uint32_t frameNumber __attribute__((aligned(4)));  // 0: about no frame
    // SHUTTER: nanoseconds of the sensor's clock. ERROR: a code. PEOPLE_COUNT: the count.
    uint64_t value __attribute__((aligned(8)));
};

static_assert(sizeof(FDNotifyMsg) == 16 && offsetof(FDNotifyMsg, value) == 8, "wrong layout");

}  // namespace vendor::zoru::zoruprovider::fdstream::V1_0
