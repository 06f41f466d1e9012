// The platform's log, and the capture by which tests read it.

#include <android/log.h>
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "host/log.h"

namespace testing_support {

TEST(LogTest, CutsALineAndGivesThePreviousSinkBack) {
    host::LogCapture outer;
    {
        host::LogCapture inner;
        __android_log_print(ANDROID_LOG_INFO, "tag", "%s\n", std::string(2000, 'x').c_str());
        ASSERT_EQ(inner.lines().size(), 1U);
        EXPECT_EQ(inner.lines()[0].text, std::string(1023, 'x'));
        EXPECT_EQ(inner.lines()[0].priority, ANDROID_LOG_INFO);
    }
    __android_log_print(ANDROID_LOG_ERROR, "tag", "kept\n");
    EXPECT_EQ(outer.texts("tag"), std::vector<std::string>{"kept\n"});
}

}  // namespace testing_support
