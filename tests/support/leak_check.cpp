#include "support/leak_check.h"

#include <sched.h>

#include <chrono>
#include <string>

namespace testing_support {

void LeakCheck::OnTestStart(const testing::TestInfo& /*info*/) {
    mBefore = kit::Holdings::of();
}

void LeakCheck::OnTestEnd(const testing::TestInfo& /*info*/) {
    // A thread that dropped the last reference to its own object still has a few steps to its end.
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(5);
    // Looked at twice, because the list of threads can miss one while another ends.
    const auto look = [this] {
        const std::string once = kit::Holdings::of().differenceFrom(mBefore);
        return once.empty() ? kit::Holdings::of().differenceFrom(mBefore) : once;
    };
    std::string difference = look();
    while (!difference.empty() && std::chrono::steady_clock::now() < deadline) {
        sched_yield();
        difference = look();
    }
    EXPECT_EQ(difference, "");
}

}  // namespace testing_support
