// Unloading and exiting, each batch in a process of its own.

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdlib>
#include <string>
#include <utility>

#include "support/run_shell.h"

namespace testing_support {

namespace {

Output probe(const std::string& mode, int rounds = 1) {
    // A leak checker cannot stop the parent's threads from a forked child, and then sees false
    // leaks.
    const std::string options = mode == "fork" ? "ASAN_OPTIONS=detect_leaks=0 " : "";
    return runShell(options + "exec " UNLOAD_PROBE " " IMPLEMENTATION_LIBRARY " " + mode + " " +
                    std::to_string(rounds));
}

/** More when the environment asks for it, as the nightly checks do. */
int rounds() {
    const char* const wanted = getenv("FDSTREAM_UNLOAD_ROUNDS");
    return wanted != nullptr ? static_cast<int>(strtol(wanted, nullptr, 10)) : 150;
}

}  // namespace

TEST(UnloadTest, LeavesNothingOfTheLibraryAtAnyMomentOfAPass) {
    for (const std::string mode : {"unload", "load", "reconfigure"}) {
        const Output output = probe(mode, rounds());
        EXPECT_EQ(output.exitCode, 0) << output.text;
        EXPECT_EQ(output.text, "") << mode;
    }
}

TEST(UnloadTest, ExitsInOrderWithALiveSession) {
    for (const std::string mode :
         {"exit", "exit", "exit", "fork", "inside", "observer", "track", "lost"}) {
        const Output output = probe(mode);
        EXPECT_EQ(output.exitCode, 0) << mode;
        EXPECT_EQ(output.text, "") << mode;
    }
}

TEST(UnloadTest, WaitsTwoSecondsAtMostAndSaysForWhat) {
    // It waits both times: for a callback that never returns, and for a reference that is kept.
    const std::pair<std::string, std::string> lines[] = {
        {"stuck", "the session's thread is still inside a pass"},
        {"keep", "1 references to the session are held"}};
    const std::string begin =
        " E vendor.zoru.zoruprovider.fdstream@1.0-impl: the library goes while ";
    for (const auto& [mode, line] : lines) {
        const Output output = probe(mode);
        EXPECT_EQ(output.exitCode, 0) << mode;
        EXPECT_NE(output.text.find(begin + line), std::string::npos) << output.text;
        EXPECT_EQ(std::count(output.text.begin(), output.text.end(), '\n'), 1) << output.text;
    }
}

}  // namespace testing_support
