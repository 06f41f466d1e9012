// The platform's threads: how they start, stop, and end.

#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>
#include <utils/Thread.h>

#include <atomic>
#include <functional>
#include <utility>

#include "host/threads.h"
#include "support/session_fixture.h"

namespace testing_support {

namespace {

/** Runs `body` in each pass. */
class LoopThread : public android::Thread {
public:
    explicit LoopThread(std::function<bool()> body) : mBody(std::move(body)) {}
    using Thread::exitPending;
    android::status_t readyToRun() override { return readiness; }

    android::status_t readiness = android::NO_ERROR;

private:
    bool threadLoop() override { return mBody(); }

    const std::function<bool()> mBody;
};

}  // namespace

TEST(ThreadTest, RunsStopsAndRunsAgain) {
    std::atomic<int> passes{0};
    const sp<LoopThread> thread = new LoopThread([&] { return ++passes, true; });
    host::failNextThreadStart();
    EXPECT_EQ(thread->run("x"), android::UNKNOWN_ERROR);
    EXPECT_EQ(thread->getStrongCount(), 1);
    EXPECT_EQ(thread->join(), android::NO_ERROR);  // there is none
    for (const bool isReady : {true, true, false}) {
        passes = 0;
        thread->readiness = isReady ? android::NO_ERROR : android::UNKNOWN_ERROR;
        EXPECT_EQ(thread->run("anew"), android::NO_ERROR);
        if (isReady) {
            EXPECT_EQ(thread->run("again"), android::INVALID_OPERATION);
            EXPECT_TRUE(eventually([&] { return passes > 0; }));
            thread->requestExit();
        }
        EXPECT_EQ(thread->join(), android::NO_ERROR);
        EXPECT_EQ(passes > 0, isReady);
        EXPECT_FALSE(thread->isRunning());
        EXPECT_TRUE(thread->exitPending());  // sticks until the next run
    }
    // A forked child has no such thread: it must not wait for one.
    thread->readiness = android::NO_ERROR;
    EXPECT_EQ(thread->run("parent"), android::NO_ERROR);
    const pid_t child = fork();
    if (child == 0) _exit(thread->join() == android::NO_ERROR ? 0 : 1);
    int status = -1;
    EXPECT_EQ(waitpid(child, &status, 0), child);
    EXPECT_EQ(status, 0);
    EXPECT_EQ(thread->requestExitAndWait(), android::NO_ERROR);
    EXPECT_FALSE(thread->exitPending());
}

TEST(ThreadTest, RefusesToWaitForItselfWhileItsLoopRuns) {
    LogLines log;
    LoopThread* own = nullptr;
    const sp<LoopThread> thread = new LoopThread([&] {
        EXPECT_EQ(own->join(), android::WOULD_BLOCK);
        EXPECT_EQ(own->requestExitAndWait(), android::WOULD_BLOCK);
        EXPECT_FALSE(own->exitPending());
        return false;
    });
    own = thread.get();
    thread->run("own");
    EXPECT_EQ(thread->join(), android::NO_ERROR);
    const Lines lines = log.said("Thread");
    ASSERT_EQ(lines.size(), 2U);
    EXPECT_EQ(lines[0].rfind("W Thread (this=0x", 0), 0U);
    EXPECT_NE(lines[1].find("): don't call requestExitAndWait() from"), std::string::npos);
}

}  // namespace testing_support
