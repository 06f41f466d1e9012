// Unloading and exiting, each batch in a process of its own.

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdlib>
#include <string>

#include "support/run_shell.h"

namespace testing_support {

namespace {

/** What the probe prints; it must hold. */
std::string probe(const std::string& mode, const std::string& rounds = "") {
    SCOPED_TRACE(mode);
    // A leak checker cannot stop the parent's threads from a forked child, and then sees false
    // leaks.
    const std::string options = mode == "fork" ? "ASAN_OPTIONS=detect_leaks=0 " : "";
    const Output output = runShell(options + "exec " UNLOAD_PROBE " " IMPLEMENTATION_LIBRARY " " +
                                   mode + " " + rounds);
    EXPECT_EQ(output.exitCode, 0) << output.text;
    return output.text;
}

}  // namespace

TEST(UnloadTest, LeavesNothingOfTheLibraryAtAnyMomentOfAPass) {
    // More when the environment asks for it, as the nightly checks do.
    const char* const rounds = getenv("FDSTREAM_UNLOAD_ROUNDS");
    EXPECT_EQ(probe("unload", rounds != nullptr ? rounds : "450"), "");
}

TEST(UnloadTest, ExitsInOrderWithALiveSession) {
    for (const char* mode : {"exit", "exit", "exit", "fork", "inside", "observer", "track", "lost"})
        EXPECT_EQ(probe(mode), "") << mode;
}

TEST(UnloadTest, WaitsTwoSecondsAtMostAndSaysForWhat) {
    // It waits both times: for a callback that never returns, and for a reference that is kept.
    const char* const reasons[][2] = {{"stuck", "the session's thread is still inside a pass"},
                                      {"keep", "1 references to the session are held"}};
    for (const auto& [mode, reason] : reasons) {
        const std::string text = probe(mode);
        EXPECT_NE(
            text.find(" E vendor.zoru.zoruprovider.fdstream@1.0-impl: the library goes while " +
                      std::string(reason)),
            std::string::npos)
            << text;
        EXPECT_EQ(std::count(text.begin(), text.end(), '\n'), 1) << text;
    }
}

}  // namespace testing_support
