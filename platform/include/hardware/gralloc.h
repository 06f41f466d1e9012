#pragma once

#include <cutils/native_handle.h>
#include <system/graphics.h>

enum {
    GRALLOC_USAGE_SW_READ_OFTEN = 0x00000003,
    GRALLOC_USAGE_SW_READ_MASK = 0x0000000F,
    GRALLOC_USAGE_SW_WRITE_OFTEN = 0x00000030,
    GRALLOC_USAGE_SW_WRITE_MASK = 0x000000F0,
};
