#pragma once

#include <gtest/gtest.h>

#include <chrono>
#include <fstream>
#include <iterator>
#include <memory>
#include <string>
#include <vector>

#include "child_process.h"

namespace testing_support {

/** For whatever a program of a test takes, on a slow machine too. */
constexpr std::chrono::seconds kPatience(50);

inline bool has(const std::string& text, const std::string& part) {
    return text.find(part) != std::string::npos;
}

inline std::string contentOf(const std::string& path) {
    std::ifstream file(path, std::ios::binary);
    return {std::istreambuf_iterator<char>(file), {}};
}

/** Both what it prints and its errors are read; a test that cannot start it fails. */
inline std::unique_ptr<kit::ChildProcess> startShell(const std::string& line) {
    std::string problem;
    auto shell = kit::ChildProcess::startShell(line, problem, {false, true, {}});
    EXPECT_NE(shell, nullptr) << problem;
    return shell;
}

/** All that a line of the shell printed, and how it ended. */
struct Output {
    std::string text;
    int exitCode = -1;
};

inline Output runShell(const std::string& line) {
    const auto shell = startShell(line);
    if (shell == nullptr) return {};
    return {shell->rest(kPatience), shell->exitCode(kPatience)};
}

/** What a program is told, how it ends then, and what it says, or a part of that. */
struct Run {
    std::string arguments;
    int exitCode;
    std::string said;
};

inline void expectRuns(const std::string& program, const std::vector<Run>& runs) {
    for (const Run& run : runs) {
        const Output output = runShell(program + " " + run.arguments);
        EXPECT_EQ(output.exitCode, run.exitCode) << run.arguments << output.text;
        EXPECT_TRUE(has(output.text, run.said)) << run.arguments << output.text;
    }
}

}  // namespace testing_support
