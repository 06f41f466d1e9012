// What takes a process of its own: unloading the library, exiting with a live session wherever its
// threads are, and calls that fail, each of them in one.

#include <android/log.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <cstdlib>
#include <functional>
#include <optional>
#include <string>
#include <thread>

#include "host/log.h"
#include "host/threads.h"
#include "support/driven_session.h"
#include "support/run_shell.h"

namespace testing_support {

namespace {

using Leave = std::function<void(FDSession&)>;

bool isLeaving = false;
std::atomic<bool> isWaiting{false};

/** Goes after all that is the library's own, and tells how many of its threads have not ended. */
[[gnu::init_priority(101)]] const struct AfterTheLibrary {
    ~AfterTheLibrary() {
        if (isLeaving) _exit(host::threadCount());
    }
} afterTheLibrary;

/** With a monitor whose next wait begins late, and is ended by nothing but a wake-up. `inside` runs
 * in the client's callback. */
void exitAfter(const Leave& leave, const std::function<void()>& inside) {
    host::setStderrLogPriority(ANDROID_LOG_WARN);
    isLeaving = true;
    Deliveries deliveries;
    std::optional<BeforeWaiting> beforeWaiting;
    auto* const callback = new Callback(deliveries);
    callback->during = [&] {
        beforeWaiting.emplace([](timespec& deadline) {
            isWaiting = true;
            std::this_thread::sleep_for(std::chrono::milliseconds(200));
            deadline.tv_sec += 3600;
        });
        inside();
    };
    FDSession* const session = FDSession::getInstance().get();
    session->getInterface()->setCallback(callback).isOk();
    session->sendCaptureResult(resultFor(requestFor(1, 1)));
    deliveries.waitFor(1);
    leave(*session);
    exit(0);
}

void expectExit(
    const char* where, int threadsLeft, const std::string& reason, const Leave& leave,
    const std::function<void()>& inside = [] {}) {
    SCOPED_TRACE(where);
    const std::string line = "^[^\n]* E [^\n]*: the library goes while " + reason + " \n$";
    EXPECT_EXIT(exitAfter(leave, inside), testing::ExitedWithCode(threadsLeft),
                reason.empty() ? "^$" : line);
}

}  // namespace

TEST(UnloadTest, LeavesNothingOfTheLibraryAtAnyMomentOfAPass) {
    // More when the environment asks for it, as the nightly checks do.
    const Output output =
        runShell("exec " UNLOAD_PROBE " " IMPLEMENTATION_LIBRARY " ${FDSTREAM_UNLOAD_ROUNDS:-450}");
    EXPECT_EQ(output.exitCode, 0);
    EXPECT_EQ(output.text, "");
}

TEST(UnloadDeathTest, ExitsWithALiveSessionInOrderOrSaysWhyNot) {
    expectExit("about to wait", 0, "", [](FDSession&) {
        while (!isWaiting)
            std::this_thread::yield();
    });
    expectExit("a child that has no monitor", 0, "", [](FDSession&) {
        int status = W_EXITCODE(1, 0);
        if (const pid_t child = fork()) waitpid(child, &status, 0);
        if (status != W_EXITCODE(1, 0)) _exit(2);
    });
    expectExit(
        "on the monitor", 1, "", [](FDSession&) { pause(); }, [] { exit(0); });
    expectExit("in an operation with the lock", 1, "", [](FDSession& session) {
        Observer observer;
        observer.inside = [] {
            std::this_thread::sleep_for(std::chrono::milliseconds(60));  // the monitor wants it
            exit(0);
        };
        session.setSceneCallback(&observer);
        session.setSceneControl({});
    });
    // These two wait for two seconds, and no longer.
    const auto start = std::chrono::steady_clock::now();
    expectExit(
        "stuck", 1, "the session's thread is still inside a pass", [](FDSession&) {},
        [] {
            while (true)
                pause();
        });
    expectExit("kept", 0, "1 references to the session are held",
               [](FDSession& session) { session.incStrong(nullptr); });
    EXPECT_GE(std::chrono::steady_clock::now() - start, std::chrono::seconds(4));
}

// Takes its time, because those are many hundreds; in a sanitizer's build, where a process takes
// longer, it is every fifth call.
TEST(FaultTest, LosesNothingWhateverFails) {
    const auto probe = startShell("exec " FAULT_PROBE + std::string(IS_SLOW ? " 5" : ""));
    const std::string text = probe->rest(std::chrono::seconds(IS_SLOW ? 290 : 110));
    EXPECT_EQ(probe->exitCode(kPatience), 0) << text;
}

}  // namespace testing_support
