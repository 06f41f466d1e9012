// What every test leans on: the platform's log and properties, and the check for leaks.

#include <android/log.h>
#include <cutils/properties.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <chrono>
#include <string>
#include <utility>

#include "holdings.h"
#include "host/properties.h"
#include "support/log_lines.h"
#include "support/session_fixture.h"
#include "support/stress.h"

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
    EXPECT_EQ(outer.take(), (Lines{"E kept\n", "W kept\n"}));
    EXPECT_TRUE(outer.said().empty());
}

TEST(PropertyTest, KnowsTheWordsForYesAndNoAndNoOthers) {
    constexpr const char* kKey = "a.property";
    EXPECT_EQ(property_get_bool(kKey, 7), 7);
    const std::pair<int, Lines> words[] = {{1, {"1", "y", "yes", "true", "on"}},
                                           {0, {"0", "n", "no", "false", "off"}},
                                           {7, {"", "2", "True", "ON", " 1", "no "}}};
    for (const auto& [expected, values] : words) {
        for (const std::string& value : values) {
            host::setProperty(kKey, value);
            EXPECT_EQ(property_get_bool(kKey, 7), expected) << value;
        }
    }
    host::clearProperty(kKey);
}

TEST(LeakCheckTest, CatchesADescriptorAThreadAndAMapping) {
    const kit::Holdings before = kit::Holdings::of();
    const host::Buffer buffer = allocate(4, 4);  // a descriptor and a mapping
    const Watchdog thread([] { return "a test"; });
    const std::string difference = kit::Holdings::of().differenceFrom(before);
    for (const char* const kind : {"descriptors", "threads", "mappings"})
        EXPECT_NE(difference.find(kind), std::string::npos) << difference;
}

TEST(WatchdogDeathTest, SaysWhereEachThreadIs) {
    const auto stop = [](size_t round) {
        if (round == 3) pause();
    };
    EXPECT_DEATH(
        race({{"stuck", stop}, {"quick", [](size_t) {}}}, 5, std::chrono::milliseconds(500)),
        "watchdog ends .*: stuck in round 3; quick ended; ");
}

}  // namespace testing_support
