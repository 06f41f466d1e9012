// Each operation of the session against itself and each other one, over and over, for the thread
// sanitizer; where each one lets go of the lock, and what waits for it, or for an observer's call.

#include <dlfcn.h>
#include <pthread.h>
#include <unistd.h>

#include <atomic>
#include <cctype>
#include <chrono>
#include <ctime>
#include <functional>
#include <initializer_list>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "host/log.h"
#include "host/properties.h"
#include "session_control.h"
#include "support/driven_session.h"
#include "support/spy_mapper.h"

#ifndef __SANITIZE_THREAD__  // which cannot do without its own

/** Runs once when this thread has let go of a recursive mutex, so that others may have it. */
static thread_local std::function<void()> afterUnlock;
/** The recursive mutex that this thread has let go of last: the session's. */
static thread_local const pthread_mutex_t* sessionLock = nullptr;

// glibc keeps in the mutex what it is, who has it, and how often.
extern "C" int pthread_mutex_unlock(pthread_mutex_t* mutex) noexcept {
    // Without a guard: libc++abi unlocks a mutex while it makes what has one.
    using Unlock = int (*)(pthread_mutex_t*);
    static std::atomic<Unlock> next{nullptr};
    if (next == nullptr) next = reinterpret_cast<Unlock>(dlsym(RTLD_NEXT, "pthread_mutex_unlock"));
    const bool isLast =
        mutex->__data.__kind == PTHREAD_MUTEX_RECURSIVE && mutex->__data.__count == 1;
    const int result = next.load()(mutex);
    if (isLast) sessionLock = mutex;
    // It may put another one there.
    if (const auto now = isLast ? std::exchange(afterUnlock, nullptr) : nullptr) now();
    return result;
}
#endif

namespace testing_support {

static SceneControl sceneOf(size_t i) {
    return {std::vector<Crop>(i % 3), 0, 0, 0, 0, static_cast<int32_t>(i)};
}

class RaceTest : public DrivenSession {
protected:
    ~RaceTest() override { host::clearProperty("vendor.zoru.flipped"); }

    template <typename Record, typename Result>
    Side::second_type get(Result (FDSession::*operation)(Record&)) {
        return [this, operation](size_t) {
            Record record = {};
            (session.get()->*operation)(record);
        };
    }
    std::unique_ptr<Observer> replaced;
    const std::vector<Side> operations = {
        {"setCallback",
         [this](size_t i) { session->handleSetCallback(i % 10 == 9 ? nullptr : callback); }},
        {"configure", [this](size_t) { session->handleConfigure(configurationOf(0)); }},
        {"processCaptureRequest", [this](size_t i) { submit(1, i % 5); }},
        {"getBufferForId", [this](size_t i) { session->getBufferForId(i % 5); }},
        {"getConfiguration", get(&FDSession::getConfiguration)},
        {"getProcessCaptureRequest", get(&FDSession::getProcessCaptureRequest)},
        {"isCaptureRequestReady", [this](size_t) { session->isCaptureRequestReady(); }},
        {"sendNotify", get(&FDSession::sendNotify)},
        {"sendCaptureResult", [this](size_t i) { session->sendCaptureResult(resultOf(i % 5)); }},
        {"setSceneControl", [this](size_t i) { session->setSceneControl(sceneOf(i)); }},
        {"getSceneControl", get(&FDSession::getSceneControl)},
        {"getPeopleCount", [this](size_t) { session->getPeopleCount(); }},
        {"setTrackingMode",
         [this](size_t i) { session->setTrackingMode(TrackingMode(i % 2 == 0)); }},
        {"getTrackingMode", [this](size_t) { session->getTrackingMode(); }},
        {"setPTZControl", [this](size_t i) { session->setPTZControl(sceneOf(i)); }},
        {"getPTZControl", get(&FDSession::getPTZControl)},
        {"resetPTZScene", [this](size_t) { session->resetPTZScene(); }},
        {"setTrackControl", [this](size_t) { session->setTrackControl({}); }},
        {"getTrackControl", get(&FDSession::getTrackControl)},
        {"setSceneCallback",
         [this](size_t) {  // who has replaced one may destroy it at once
             auto next = std::make_unique<Observer>();
             session->setSceneCallback(next.get());
             replaced = std::move(next);
         }},
        {"pass", [this](size_t i) {
             session->sendCaptureResult(resultOf(i % 5));
             pass();
         }}};
};

TEST_F(RaceTest, RunsEachOperationAgainstEachOtherAndAllAtOnce) {
    configure();
    host::setProperty("vendor.zoru.flipped", "true");
    callback->during = [] { std::this_thread::yield(); };  // on a busy processor, too
    for (size_t i = 0; i < operations.size(); ++i) {
        // These two have one thread at a time.
        const bool isAlone =
            operations[i].first == "pass" || operations[i].first == "setSceneCallback";
        for (size_t j = 0; j < i + (isAlone ? 0 : 1); ++j)
            race({operations[i], operations[j]}, 30);
    }
    race(operations, 300);
}

TEST_F(RaceTest, StampsARequestAtItsEnd) {
    configure();
    clock.stopAt(1000000);
    sessionMapper().during = [this] { clock.stopAt(3000000); };
    submit(1, 1);
    pass();
    EXPECT_EQ(deliveries.count(), 0U);  // not too old yet
}

TEST_F(RaceTest, WaitsFiftyMillisecondsForAResultThatWakesItAndLocksTheQueueOnly) {
    std::optional<Meanwhile> reader;
    std::optional<Meanwhile> sender;
    using Clock = std::chrono::system_clock;
    const auto earliest = Clock::now() + std::chrono::milliseconds(50);
    const BeforeWaiting look([&](timespec& deadline) {
        const auto end =
            Clock::from_time_t(deadline.tv_sec) + std::chrono::nanoseconds(deadline.tv_nsec);
        EXPECT_GE(end, earliest);
        EXPECT_LE(end, Clock::now() + std::chrono::milliseconds(50));
        deadline.tv_sec += 3600;  // until it is woken
        reader.emplace([this] { session->getTrackingMode(); }, Other::GOES_ON);
        sender.emplace([this] { session->sendCaptureResult(resultOf(1)); }, Other::WAITS);
    });
    session->threadLoop();
    EXPECT_EQ(deliveries.count(), 1U);
}

#ifndef __SANITIZE_THREAD__
/** Where an operation of this thread comes by, in capitals where it has the session locked. */
struct Trace : public host::LogSink {
    explicit Trace(FDSession& traced) : session(traced) {}
    void note(char place) {
        const bool isLocked = sessionLock->__data.__owner == gettid();
        const char now = isLocked ? static_cast<char>(toupper(place)) : place;
        if (places.empty() || places.back() != now || now == '.') places += now;
        // Which would wait for itself if the operation had the queue locked.
        if (!isLocked && place != '.') session.sendCaptureResult({});
    }
    /** Puts a note there, and each time again. */
    void noteAt(std::function<void()>& hook, char place) {
        hook = [this, &hook, place] {
            note(place);
            noteAt(hook, place);
        };
    }
    void write(const host::LogLine& /*line*/) override { note('l'); }

    FDSession& session;
    std::string places;
};

TEST_F(RaceTest, HasTheSessionLockedWhereItCallsTheObserverAndTheMapperAndNowhereElse) {
    // l: a line of the log, o: the observer, m: the mapper, w: frees a buffer whose wrapper is
    // still there, c: the client, .: lets go of the lock.
    const std::map<std::string, std::string> places = {
        {"configure", "lLMW."},
        {"isCaptureRequestReady", ""},
        {"pass", ".l.c..c"},  // a result, turned, and a stale request
        {"processCaptureRequest", "ML."},
        {"resetPTZScene", "L."},
        {"sendCaptureResult", ""},
        {"sendNotify", ".c"},
        {"setCallback", "l."},
        {"setPTZControl", "O."},
        {"setSceneControl", "O."},
        {"setTrackControl", ".o"},
        {"setTrackingMode", "LO."}};
    host::setProperty("vendor.zoru.flipped", "true");
    for (const auto& [name, operation] : operations) {
        configure();
        submit(1, 1);
        session->sendCaptureResult(resultOf(1));
        session->setSceneCallback(&observer);
        session->setTrackingMode(TrackingMode::GROUP);
        if (name == "pass") host::failNextUnlock(5);  // which leaves a line while it turns
        Trace trace(*session);
        callback->during = [&] { trace.note('c'); };
        const host::ScopedLogSink scope(trace);
        trace.noteAt(observer.inside, 'o');
        trace.noteAt(sessionMapper().during, 'm');
        trace.noteAt(afterUnlock, '.');
        sessionMapper().onFree = [&](void*) {
            if (session->getBufferForId(1) != nullptr) trace.note('w');
        };
        operation(3);
        observer.inside = callback->during = sessionMapper().during = afterUnlock = nullptr;
        sessionMapper().onFree = nullptr;
        EXPECT_EQ(trace.places, places.count(name) != 0 ? places.at(name) : ".") << name;
    }
}

TEST_F(RaceTest, LetsGoOfAnObserverOnlyWhenNoCallIsInsideOrAboutToBe) {
    for (ISceneCallback* const next : std::initializer_list<ISceneCallback*>{nullptr, &observer}) {
        for (std::function<void()>* const hook : {&observer.inside, &afterUnlock}) {
            session->setSceneCallback(&observer);
            std::optional<Meanwhile> other;
            *hook = [&] {
                other.emplace([&] { session->setSceneCallback(next); },
                              next == nullptr ? Other::WAITS : Other::GOES_ON);
                session->getTrackingMode();  // whoever waits for this call has nothing locked
                FDNotifyMsg msg = {};
                session->sendNotify(msg);  // nor has the call, which would be said
            };
            session->setTrackControl({});
            EXPECT_TRUE(other.has_value());
        }
    }
    EXPECT_EQ(log.timesSaid("E sendNotify: called inside an observer's operation that has the "
                            "session locked \n"),
              0);
}

TEST_F(RaceTest, AnswersModeOffWhenNoStepOfAFollowerIsUnderWay) {
    const sp<control::SessionControl> controls = new control::SessionControl(session, {});
    EXPECT_EQ(controls->startFollowing(), control::Answer::OK);
    std::optional<Meanwhile> off;
    afterUnlock = [&] {  // when the step has looked at the mode
        off.emplace([&] { static_cast<void>(controls->setMode(TrackingMode::OFF).isOk()); },
                    Other::WAITS);
    };
    EXPECT_EQ(controls->follow(sceneOf(1), sceneOf(2)), control::Answer::OK);
    off.reset();
    SceneControl view = {};
    session->getPTZControl(view);
    EXPECT_EQ(view.crops.size(), 1U);  // as mode 0 has put it back
}
#endif

}  // namespace testing_support
