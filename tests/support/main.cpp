#include <android/log.h>
#include <gtest/gtest.h>

#include <unistd.h>

#include <csignal>
#include <thread>

#include "host/log.h"
#include "support/leak_check.h"
#include "support/spy_mapper.h"

int main(int argc, char** argv) {
    testing::InitGoogleTest(&argc, argv);
    testing::GTEST_FLAG(death_test_style) = "threadsafe";
    host::setStderrLogPriority(ANDROID_LOG_FATAL);
    const host::ScopedMapper scope(&testing_support::sessionMapper(), host::realMapper2());
    // A sanitizer makes a thread of its own with the first one of the program: that has to be
    // before any count. A joined thread stays in the kernel's list for a moment, so wait until it
    // has left.
    pid_t id = 0;
    std::thread([&id] { id = gettid(); }).join();
    while (tgkill(getpid(), id, 0) == 0)
        std::this_thread::yield();
    // The listeners own it.
    testing::UnitTest::GetInstance()->listeners().Append(new testing_support::LeakCheck);
    return RUN_ALL_TESTS();
}
