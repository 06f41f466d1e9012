#pragma once

#include <array>
#include <atomic>
#include <cstddef>

/**
 * Numbers that stand for descriptors, where only their way counts. A program that uses them has a
 * close() of its own, which asks countClose() first.
 */
namespace fuzz {

constexpr int kFirstFake = 1 << 20;
inline std::array<std::atomic<int>, 64> fakeCloses;

/** Whether this is such a number; it then counts as closed once more. */
inline bool countClose(int fd) {
    const auto index = static_cast<size_t>(fd - kFirstFake);
    if (fd < kFirstFake || index >= fakeCloses.size()) return false;
    ++fakeCloses[index];
    return true;
}

}  // namespace fuzz
