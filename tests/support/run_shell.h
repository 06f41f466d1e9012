#pragma once

#include <gtest/gtest.h>

#include <chrono>
#include <memory>
#include <string>

#include "child_process.h"

namespace testing_support {

/** For whatever a program of a test takes, on a slow machine too. */
constexpr std::chrono::seconds kPatience(50);

/** Both what it prints and its errors are read; a test that cannot start it fails. */
inline std::unique_ptr<kit::ChildProcess> startShell(const std::string& line,
                                                     bool takesInput = false) {
    kit::ChildOptions options;
    options.takesInput = takesInput;
    options.errorsToo = true;
    std::string problem;
    auto shell = kit::ChildProcess::startShell(line, problem, options);
    EXPECT_NE(shell, nullptr) << problem;
    return shell;
}

/** How a line of the shell ended, and all that it printed. */
struct Output {
    int exitCode = -1;
    std::string text;
};

inline Output runShell(const std::string& line) {
    const auto shell = startShell(line);
    Output output;
    if (shell == nullptr) return output;
    output.text = shell->rest(kPatience);
    output.exitCode = shell->exitCode(kPatience);
    return output;
}

}  // namespace testing_support
