// Every system call and allocation that a scenario makes, failing one at a time, each in a process
// of its own. Takes its time, because those are many hundreds; in a sanitizer's build, where a
// process takes longer, it is every fifth call.

#include <gtest/gtest.h>

#include <chrono>
#include <cstdio>
#include <string>

#include "support/run_shell.h"
#include "support/slow.h"

namespace testing_support {

class FaultTest : public testing::TestWithParam<std::string> {};

INSTANTIATE_TEST_SUITE_P(, FaultTest, testing::Values("socket", "direct"),
                         [](const auto& scenario) { return scenario.param; });

TEST_P(FaultTest, LosesNothingWhateverFails) {
    const auto probe = startShell("exec " FAULT_PROBE " " + GetParam() + (isSlow() ? " 5" : " 1"));
    const std::string text = probe->rest(std::chrono::seconds(isSlow() ? 290 : 110));
    EXPECT_EQ(probe->exitCode(kPatience), 0) << text;
    printf("%s", text.substr(text.rfind('\n', text.size() - 2) + 1).c_str());
}

}  // namespace testing_support
