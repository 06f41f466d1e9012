#pragma once

#include <sys/mman.h>

#include <cstddef>
#include <cstdint>

namespace testing_support {

constexpr size_t kPage = 4096;
constexpr size_t kRoom = 12 * kPage;  // for any frame of 130 x 130

/** Memory between two pages that cannot be touched. */
class Guarded {
public:
    Guarded() {
        mprotect(mWhole, kPage, PROT_NONE);
        mprotect(mWhole + kPage + kRoom, kPage, PROT_NONE);
    }
    Guarded(const Guarded&) = delete;
    Guarded& operator=(const Guarded&) = delete;
    ~Guarded() { munmap(mWhole, kRoom + 2 * kPage); }

    uint8_t* begin() const { return mWhole + kPage; }
    uint8_t* place(size_t bytes, bool atEnd) const {
        return atEnd ? begin() + kRoom - bytes : begin();
    }

private:
    uint8_t* const mWhole = static_cast<uint8_t*>(mmap(
        nullptr, kRoom + 2 * kPage, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0));
};

}  // namespace testing_support
