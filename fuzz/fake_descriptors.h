#pragma once

#include <array>
#include <atomic>
#include <chrono>
#include <cstddef>
#include <thread>

/**
 * Numbers that stand for descriptors, where only their way counts. A program that uses them has a
 * close() of its own, which asks countClose() first.
 */
namespace fuzz {

constexpr int kFirstFake = 1 << 20;
inline std::array<std::atomic<int>, 66> fakeCloses;  // more than may come with one message

/** Whether this is such a number; it then counts as closed once more. */
inline bool countClose(int fd) {
    const auto index = static_cast<size_t>(fd - kFirstFake);
    if (fd < kFirstFake || index >= fakeCloses.size()) return false;
    ++fakeCloses[index];
    return true;
}

/** Waits for those that other threads close, but not for ever. */
inline bool isClosedOnce(size_t index) {
    if (fakeCloses[index] == 1) return true;
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(10);
    while (fakeCloses[index] == 0 && std::chrono::steady_clock::now() < deadline)
        std::this_thread::yield();
    return fakeCloses[index] == 1;
}

}  // namespace fuzz
