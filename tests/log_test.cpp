// The platform's log, and the capture by which tests read it.

#include <android/log.h>
#include <gtest/gtest.h>

#include <string>

#include "support/log_lines.h"

namespace testing_support {

TEST(LogTest, CutsALineAndGivesThePreviousSinkBack) {
    LogLines outer;
    {
        const LogLines inner;
        __android_log_print(ANDROID_LOG_INFO, "tag", "%s\n", std::string(2000, 'x').c_str());
        EXPECT_EQ(inner.said(), Lines{"I " + std::string(1023, 'x')});
    }
    __android_log_print(ANDROID_LOG_ERROR, "tag", "kept\n");
    __android_log_print(ANDROID_LOG_WARN, "other", "kept\n");
    EXPECT_EQ(outer.said("tag"), Lines{"E kept\n"});
    EXPECT_FALSE(outer.waitUntilSaid("D kept\n"));
    EXPECT_EQ(outer.take(), (Lines{"E kept\n", "W kept\n"}));
    EXPECT_TRUE(outer.said().empty());
}

}  // namespace testing_support
