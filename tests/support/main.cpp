#include <android/log.h>
#include <gtest/gtest.h>

#include <thread>

#include "host/log.h"
#include "support/leak_check.h"
#include "support/spy_mapper.h"

namespace testing_support {

SpyMapper3& sessionMapper() {
    static auto* const spy = new android::sp<SpyMapper3>(new SpyMapper3(host::realMapper3()));
    return **spy;
}

}  // namespace testing_support

int main(int argc, char** argv) {
    testing::InitGoogleTest(&argc, argv);
    testing::GTEST_FLAG(death_test_style) = "threadsafe";
    host::setStderrLogPriority(ANDROID_LOG_FATAL);
    const host::ScopedMapper scope(&testing_support::sessionMapper(), host::realMapper2());
    // A sanitizer makes its own thread with the first thread of the program: before any count.
    std::thread([] {}).join();
    // The listeners own it.
    testing::UnitTest::GetInstance()->listeners().Append(new testing_support::LeakCheck);
    return RUN_ALL_TESTS();
}
