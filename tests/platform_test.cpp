// What everything leans on: the platform's log, properties, threads and reference counts.

#include <android/log.h>
#include <cutils/properties.h>
#include <fcntl.h>
#include <unistd.h>
#include <utils/RefBase.h>
#include <utils/Thread.h>

#include <atomic>
#include <cstddef>
#include <fstream>
#include <functional>
#include <string>
#include <thread>
#include <utility>

#include "host/properties.h"
#include "host/threads.h"
#include "support/log_lines.h"
#include "support/session_fixture.h"
#include "support/stress.h"

namespace testing_support {

using android::wp;

namespace {

/** Runs `body` in each pass. */
struct LoopThread : public android::Thread {
    explicit LoopThread(std::function<bool(LoopThread&)> inEach) : body(std::move(inEach)) {}
    ~LoopThread() override { join(); }
    using Thread::exitPending;
    android::status_t readyToRun() override { return readiness; }
    bool threadLoop() override { return body(*this); }

    const std::function<bool(LoopThread&)> body;
    android::status_t readiness = android::NO_ERROR;
};

void print(int priority, const char* text) {
    __android_log_print(priority, "tag", "%s\n", text);
}

/** Exits with 0 after two lines to a pipe that is full, and two more to what stderr was before. */
void printToAFullPipe() {
    int ends[2];
    const std::string full(1 << 16, 'x');
    const int own = dup(STDERR_FILENO);
    if (pipe2(ends, O_NONBLOCK) != 0 || write(ends[1], full.data(), full.size()) < 0) _exit(1);
    dup2(ends[1], STDERR_FILENO);
    host::setStderrLogPriority(ANDROID_LOG_INFO);
    print(ANDROID_LOG_INFO, "lost");
    print(ANDROID_LOG_INFO, "lost");
    dup2(own, STDERR_FILENO);
    print(ANDROID_LOG_DEBUG, "below what is wanted");
    print(ANDROID_LOG_INFO, "seen");
    _exit(0);
}

int alive = 0;

struct Counted : public android::RefBase {
    Counted() { ++alive; }
    ~Counted() override {
        --alive;
        EXPECT_TRUE(holder == nullptr || holder->get() == this);
    }
    void onFirstRef() override { countAtFirstRef = getStrongCount(); }
    void liveWithWeak() { extendObjectLifetime(OBJECT_LIFETIME_WEAK); }

    int32_t countAtFirstRef = 0;
    sp<Counted>* holder = nullptr;  ///< shows it until it is gone
};

}  // namespace

TEST(LogTest, CutsALineAndGivesThePreviousSinkBack) {
    const LogLines outer;
    {
        const LogLines inner;
        print(ANDROID_LOG_INFO, std::string(2000, 'x').c_str());
        EXPECT_EQ(inner.said(), Lines{"I " + std::string(1023, 'x')});
    }
    print(ANDROID_LOG_ERROR, "kept");
    EXPECT_EQ(outer.said("tag"), Lines{"E kept\n"});
}

TEST(LogDeathTest, WaitsForNoReaderAndCountsWhatItDrops) {
    EXPECT_EXIT(printToAFullPipe(), testing::ExitedWithCode(0),
                "^\\(2 dropped\\) [^\n]* I tag: seen\n$");
}

TEST(PropertyTest, KnowsTheWordsForYesAndNoAndNoOthers) {
    constexpr const char* kKey = "a.property";
    EXPECT_EQ(property_get_bool(kKey, 7), 7);
    const std::pair<const char*, int> words[] = {
        {"1", 1},  {"y", 1},     {"yes", 1}, {"true", 1}, {"on", 1}, {"0", 0},    {"n", 0},
        {"no", 0}, {"false", 0}, {"off", 0}, {"", 7},     {"2", 7},  {"True", 7}, {"no ", 7}};
    for (const auto& [value, expected] : words) {
        host::setProperty(kKey, value);
        EXPECT_EQ(property_get_bool(kKey, 7), expected) << value;
    }
    host::clearProperty(kKey);
}

TEST(ThreadTest, RunsStopsAndRunsAgain) {
    std::atomic<int> passes{0};
    const sp<LoopThread> thread = new LoopThread([&](LoopThread&) { return ++passes, true; });
    host::failNextThreadStart();
    EXPECT_EQ(thread->run("x"), android::UNKNOWN_ERROR);
    EXPECT_EQ(thread->getStrongCount(), 1);
    const auto join = [&] { EXPECT_EQ(thread->join(), android::NO_ERROR); };
    for (const bool isReady : {true, true, false}) {
        passes = 0;
        thread->readiness = isReady ? android::NO_ERROR : android::UNKNOWN_ERROR;
        EXPECT_EQ(thread->run("anew"), android::NO_ERROR);
        if (isReady) {
            const Meanwhile one(join, Other::WAITS);
            const Meanwhile other(join, Other::WAITS);
            EXPECT_TRUE(eventually([&] { return passes > 0; }));
            EXPECT_EQ(thread->run("again"), android::INVALID_OPERATION);  // and at once
            thread->requestExit();
        }
        join();
        EXPECT_EQ(passes > 0, isReady);
        EXPECT_FALSE(thread->isRunning());
        EXPECT_TRUE(thread->exitPending());  // sticks until the next run
    }
    thread->readiness = android::NO_ERROR;
    EXPECT_EQ(thread->run("once more"), android::NO_ERROR);
    EXPECT_EQ(thread->requestExitAndWait(), android::NO_ERROR);
    EXPECT_FALSE(thread->exitPending());
}

TEST(ThreadTest, MayBeRunAndJoinedByAllThreadsAtOnce) {
    const sp<LoopThread> thread = new LoopThread([](LoopThread&) { return false; });
    const auto run = [&](size_t) {
        while (thread->run("ending") != android::NO_ERROR)
            std::this_thread::yield();
    };
    const auto join = [&](size_t) { thread->join(); };
    race({{"run", run}, {"another run", run}, {"join", join}, {"another join", join}}, 30);
}

TEST(ThreadTest, RefusesToWaitForItselfWhileItsLoopRuns) {
    const LogLines log;
    const sp<LoopThread> thread = new LoopThread([](LoopThread& own) {
        EXPECT_EQ(own.join(), android::WOULD_BLOCK);
        EXPECT_EQ(own.requestExitAndWait(), android::WOULD_BLOCK);
        EXPECT_FALSE(own.exitPending());
        return false;
    });
    thread->run("own");
    EXPECT_EQ(thread->join(), android::NO_ERROR);
    const Lines lines = log.said("Thread");
    ASSERT_EQ(lines.size(), 2U);
    EXPECT_EQ(lines[0].rfind("W Thread (this=0x", 0), 0U);
    EXPECT_NE(lines[1].find("): don't call requestExitAndWait() from"), std::string::npos);
}

TEST(ThreadTest, GivesItsStackBackWhenItsObjectDiesOnIt) {
    constexpr size_t kStack = size_t{1} << 30;  // none as large is kept for another thread
    const auto mappedPages = [] {
        size_t pages = 0;
        std::ifstream("/proc/self/statm") >> pages;
        return pages;
    };
    const size_t most = mappedPages() + kStack / static_cast<size_t>(getpagesize()) / 2;
    sp<LoopThread> thread =
        new LoopThread([](LoopThread& own) { return own.getStrongCount() > 1; });
    thread->run("large", android::PRIORITY_DEFAULT, kStack);
    EXPECT_GT(mappedPages(), most);
    thread.clear();
    EXPECT_TRUE(eventually([&] {
        std::thread([] {}).join();  // with the next stack the C library frees those it has left
        return mappedPages() < most;
    }));
}

TEST(RefBaseTest, KeepsTheCountsAndTheLifeTimes) {
    sp<Counted> strong = new Counted;
    EXPECT_EQ(strong->countAtFirstRef, 1);
    wp<Counted> weak(strong);
    EXPECT_EQ(weak.promote(), strong);
    sp<Counted> other = std::move(strong);
    other.clear();
    EXPECT_EQ(alive, 0);
    EXPECT_EQ(weak.promote(), nullptr);

    weak = wp<Counted>(new Counted);
    strong = weak.promote();
    EXPECT_EQ(strong->countAtFirstRef, 0);  // a promotion does not run onFirstRef()
    EXPECT_EQ(strong->getStrongCount(), 1);

    // Each way of replacing an object lets go of it before it shows the other one.
    for (const int way : {0, 1, 2, 3}) {
        strong->holder = &strong;
        other = new Counted;
        if (way == 0) strong = other;
        if (way == 1) strong = other.get();
        if (way == 2) strong = std::move(other);
        if (way == 3) strong.clear();
        other.clear();
        EXPECT_EQ(alive, way == 3 ? 0 : 1);
    }
    strong = new Counted;
    strong->liveWithWeak();
    sp<Counted>& same = strong;
    strong = same;
    strong = std::move(same);
    EXPECT_EQ(strong->getStrongCount(), 1);
    weak = strong;
    strong.clear();
    EXPECT_EQ(alive, 1);  // lives with its weak references
    EXPECT_NE(weak.promote(), nullptr);
    weak.clear();
    EXPECT_EQ(alive, 0);
    const Counted onTheStack;
}

}  // namespace testing_support
