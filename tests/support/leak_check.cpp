#include "support/leak_check.h"

#include "support/session_fixture.h"

namespace testing_support {

void LeakCheck::OnTestStart(const testing::TestInfo& /*info*/) {
    mBefore = kit::Holdings::of();
}

void LeakCheck::OnTestEnd(const testing::TestInfo& /*info*/) {
    const auto isAsBefore = [this] { return kit::Holdings::of() == mBefore; };
    // A thread that dropped the last reference to its own object still has a few steps to its end.
    // Looked at twice, because the list of threads can miss one while another ends.
    EXPECT_TRUE(eventually([&] { return isAsBefore() && isAsBefore(); }))
        << kit::Holdings::of().differenceFrom(mBefore);
}

}  // namespace testing_support
