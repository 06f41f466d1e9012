#pragma once

#include <gtest/gtest.h>

#include "holdings.h"

namespace testing_support {

/** Fails every test case after which the process holds more or less than before it. */
class LeakCheck : public testing::EmptyTestEventListener {
    void OnTestStart(const testing::TestInfo& info) override;
    void OnTestEnd(const testing::TestInfo& info) override;

    kit::Holdings mBefore;
};

}  // namespace testing_support
