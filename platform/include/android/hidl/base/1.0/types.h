#pragma once

#include <cstdint>

namespace android::hidl::base::V1_0 {

struct DebugInfo final {
    enum class Architecture : int32_t { UNKNOWN = 0, IS_64BIT = 1, IS_32BIT = 2 };

    int32_t pid __attribute__((aligned(4)));
    uint64_t ptr __attribute__((aligned(8)));
    Architecture arch __attribute__((aligned(4)));
};

static_assert(sizeof(DebugInfo) == 24, "wrong size");

}  // namespace android::hidl::base::V1_0
