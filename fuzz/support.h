#pragma once

#include <fuzzer/FuzzedDataProvider.h>

#include <bitset>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <thread>

/** A target: tries one input, and returns 0. */
extern "C" int LLVMFuzzerTestOneInput(const uint8_t* bytes, size_t size);

/** What the fuzzers share. A fuzzer checks what must hold after each input, not only that it ends.
 */
namespace fuzz {

/** Says what does not hold and aborts, by which the fuzzer has found something. */
void expect(bool holds, const char* what);

/** The numbers below 512 of the open descriptors, by one system call. */
using Descriptors = std::bitset<512>;
Descriptors openDescriptors();
/** Waits for what other threads still do; a finding after a minute. */
template <typename Condition>
void expectSoon(Condition condition, const char* what) {
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::minutes(1);
    while (!condition()) {
        expect(std::chrono::steady_clock::now() < deadline, what);
        std::this_thread::yield();
    }
}
inline void expectOpen(const Descriptors& before) {
    expectSoon([&] { return openDescriptors() == before; }, "descriptors are left or lost");
}

}  // namespace fuzz
