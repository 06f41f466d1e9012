// The rotation in plain loops, which are vector code at -O3 only: what this file is compiled with.

#include "ProcessorClones.h"
#include "bench.h"

using ChromaPair = uint16_t __attribute__((aligned(1), may_alias));

// The pragmas are for clang on 64-bit Arm, which overrates what it costs to reverse a vector.

FDSTREAM_PROCESSOR_CLONES
static void exchangeLuma(uint8_t* __restrict top, uint8_t* __restrict bottom, size_t count) {
#pragma clang loop vectorize_width(32)
    for (size_t i = 0; i < count; ++i) {
        const uint8_t sample = top[i];
        top[i] = bottom[count - 1 - i];
        bottom[count - 1 - i] = sample;
    }
}

FDSTREAM_PROCESSOR_CLONES
static void exchangeChroma(ChromaPair* __restrict top, ChromaPair* __restrict bottom,
                           size_t count) {
#pragma clang loop vectorize_width(16)
    for (size_t i = 0; i < count; ++i) {
        const uint16_t pair = top[i];
        top[i] = bottom[count - 1 - i];
        bottom[count - 1 - i] = pair;
    }
}

void bench::turnPlainly(uint8_t* luma, uint8_t* chroma, size_t width, size_t rows) {
    for (size_t row = 0; row < rows / 2; ++row)
        exchangeLuma(luma + row * width, luma + (rows - 1 - row) * width, width);
    const auto pairs = [&](size_t row) {
        return reinterpret_cast<ChromaPair*>(chroma + row * width);
    };
    for (size_t row = 0; row < rows / 4; ++row)
        exchangeChroma(pairs(row), pairs(rows / 2 - 1 - row), width / 2);
}
