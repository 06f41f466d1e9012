#pragma once

#include <gtest/gtest.h>

#include "holdings.h"
#include "support/session_fixture.h"

namespace testing_support {

/** Fails every test case after which the process holds more or less than before it. */
class LeakCheck : public testing::EmptyTestEventListener {
    void OnTestStart(const testing::TestInfo& /*info*/) override { mBefore = kit::Holdings::of(); }
    void OnTestEnd(const testing::TestInfo& /*info*/) override {
        // A thread that dropped the last reference to its own object still has a few steps to its
        // end. Looked at twice, because the list of threads can miss one while another ends.
        EXPECT_TRUE(eventually([this] {
            return kit::Holdings::of() == mBefore && kit::Holdings::of() == mBefore;
        })) << kit::Holdings::of().differenceFrom(mBefore);
    }

    kit::Holdings mBefore;
};

}  // namespace testing_support
