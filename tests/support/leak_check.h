#pragma once

#include <gtest/gtest.h>

#include <string>

namespace testing_support {

/** What a process holds that a test must give back. Value type. */
struct Holdings {
    int descriptors = 0;
    int threads = 0;
    int bufferMappings = 0;  ///< mappings of buffer memory, the mapper's and the tests' own

    static Holdings now();
    bool isWithin(const Holdings& limit) const {
        return descriptors <= limit.descriptors && threads <= limit.threads &&
               bufferMappings <= limit.bufferMappings;
    }
    /** Empty when equal, else a sentence for each difference. */
    std::string differenceFrom(const Holdings& before) const;
};

/** Fails every test case after which the process holds more or less than before it. */
class LeakCheck : public testing::EmptyTestEventListener {
    void OnTestStart(const testing::TestInfo& info) override;
    void OnTestEnd(const testing::TestInfo& info) override;

    Holdings mBefore;
};

}  // namespace testing_support
