#pragma once

#include <sys/mman.h>

#include <cstddef>
#include <cstdint>

namespace testing_support {

constexpr size_t kPage = 4096;
constexpr size_t kRoom = 12 * kPage;  // for any frame of 130 x 130

/** Memory between two pages that cannot be touched. */
struct Guarded {
    Guarded() { mprotect(begin, kRoom, PROT_READ | PROT_WRITE); }
    Guarded(const Guarded&) = delete;
    ~Guarded() { munmap(begin - kPage, kRoom + 2 * kPage); }

    uint8_t* place(size_t bytes, bool atEnd) const { return atEnd ? begin + kRoom - bytes : begin; }

    uint8_t* const begin = kPage + static_cast<uint8_t*>(mmap(nullptr, kRoom + 2 * kPage, PROT_NONE,
                                                              MAP_PRIVATE | MAP_ANONYMOUS, -1, 0));
};

}  // namespace testing_support
