// Every system call and allocation that a scenario makes, failing one at a time, each in a process
// of its own. Takes its time, because those are many hundreds; in a sanitizer's build, where a
// process takes longer, it is every fifth call.

#include <gtest/gtest.h>

#include <chrono>
#include <cstdio>
#include <sstream>
#include <string>

#include "support/run_shell.h"
#include "support/slow.h"

namespace testing_support {

namespace {

struct Swept {
    const char* scenario;
    const char* calls;  ///< which it must reach
};

constexpr Swept kSwept[] = {
    {"socket",
     "accept4 bind chmod eventfd fcntl flock getsockopt gettimeofday listen mapper poll "
     "pthread_cond_timedwait pthread_create readlink recvmsg sendmsg setsockopt socket statx"},
    {"direct", "fcntl gettimeofday mapper pthread_cond_timedwait statx"},
    {"mapper2", "fcntl gettimeofday mapper pthread_cond_timedwait statx"},
    {"source", "fcntl fopen fread fseek gettimeofday mapper pthread_create statx"},
    {"file", "fcntl fflush fopen fread fwrite statx"}};
const std::chrono::seconds kPatienceOfAll(isSlow() ? 290 : 110);
constexpr const char* kOfMemory = "malloc mmap";

class FaultTest : public testing::TestWithParam<Swept> {};

INSTANTIATE_TEST_SUITE_P(, FaultTest, testing::ValuesIn(kSwept),
                         [](const auto& swept) { return std::string(swept.param.scenario); });

}  // namespace

TEST_P(FaultTest, LosesNothingWhateverFails) {
    const auto& [scenario, calls] = GetParam();
    const bool isSanitized = *SANITIZERS != '\0';
    const auto probe =
        startShell(std::string("exec " FAULT_PROBE " ") + scenario + (isSlow() ? " 5" : " 1"));
    const std::string text = probe->rest(kPatienceOfAll);
    EXPECT_EQ(probe->exitCode(kPatience), 0) << text;
    std::istringstream wanted(std::string(calls) + " " + (isSanitized ? "" : kOfMemory));
    for (std::string call; wanted >> call;)
        EXPECT_NE(("\n" + text).find("\n" + call + " "), std::string::npos) << call;
    printf("%s", text.substr(text.rfind('\n', text.size() - 2) + 1).c_str());
}

}  // namespace testing_support
