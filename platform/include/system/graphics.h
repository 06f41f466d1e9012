#pragma once

#include <stddef.h>
#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

enum { HAL_PIXEL_FORMAT_YCBCR_420_888 = 35 };

/** A locked YCbCr buffer: plane addresses, row strides and the chroma sample step in bytes. */
struct android_ycbcr {
    void* y;
    void* cb;
    void* cr;
    size_t ystride;
    size_t cstride;
    size_t chroma_step;
    uint32_t reserved[8];
};

#ifdef __cplusplus
static_assert(sizeof(android_ycbcr) == 80, "wrong layout");
#endif

#ifdef __cplusplus
}
#endif
