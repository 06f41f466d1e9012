#pragma once

#include <fuzzer/FuzzedDataProvider.h>

#include <chrono>
#include <cstdint>
#include <thread>

#include "holdings.h"
#include "host/unique_fd.h"

/** A target: tries one input, and returns 0. */
extern "C" int LLVMFuzzerTestOneInput(const uint8_t* bytes, size_t size);

/** What the fuzzers share. A fuzzer checks what must hold after each input, not only that it ends.
 */
namespace fuzz {

/** Says what does not hold and aborts, by which the fuzzer has found something. */
void expect(bool holds, const char* what);

/** Waits for what other threads still do; a finding after a minute. */
template <typename Condition>
void expectSoon(Condition condition, const char* what) {
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::minutes(1);
    while (!condition()) {
        expect(std::chrono::steady_clock::now() < deadline, what);
        std::this_thread::yield();
    }
}
/** Waits at its end until as many descriptors are open as there were. */
struct SameDescriptors {
    ~SameDescriptors() {
        expectSoon([this] { return kit::Holdings::of().descriptors == before; }, "fds are left");
    }
    const int before = kit::Holdings::of().descriptors;
};

/** A descriptor of each kind, of which the first ones may cross where they belong. */
constexpr int kMayCross = 3;
constexpr int kKinds = 6;
extern const host::UniqueFd kKind[kKinds];

}  // namespace fuzz
