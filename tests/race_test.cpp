// Each operation of the session against those that touch the same, over and over, for the thread
// sanitizer; and where each one lets go of the lock.

#include <dlfcn.h>
#include <pthread.h>
#include <unistd.h>

#include <atomic>
#include <cctype>
#include <functional>
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

namespace {

SceneControl sceneOf(int i) {
    SceneControl scene = {};
    scene.crops.resize(static_cast<size_t>(i % 3));
    scene.peopleCount = i;
    return scene;
}

uint64_t idOf(int i) {
    return static_cast<uint64_t>(i % 5);
}

}  // namespace

class RaceTest : public DrivenSession {
protected:
    using Operation = std::function<void(int)>;

    static void SetUpTestSuite() { FDSession::getInstance(); }
    ~RaceTest() override { host::clearProperty("vendor.zoru.flipped"); }

    template <typename Record, typename Result>
    Operation get(Result (FDSession::*operation)(Record&)) {
        return [this, operation](int) {
            Record record = {};
            (session.get()->*operation)(record);
        };
    }
    void replaceObserver() {
        // Whoever has replaced an observer may destroy it at once.
        auto next = std::make_unique<Observer>();
        session->setSceneCallback(next.get());
        replaced = std::move(next);
    }
    std::unique_ptr<Observer> replaced;
    const std::map<std::string, Operation> operations = {
        {"getInstance", [](int) { FDSession::getInstance(); }},
        {"getInterface", [this](int) { session->getInterface(); }},
        {"setCallback",
         [this](int i) { session->handleSetCallback(i % 50 == 0 ? nullptr : callback); }},
        {"configure", [this](int) { session->handleConfigure(configurationOf(0)); }},
        {"processCaptureRequest", [this](int i) { submit(1, idOf(i)); }},
        {"getBufferForId", [this](int i) { session->getBufferForId(idOf(i)); }},
        {"getConfiguration", get(&FDSession::getConfiguration)},
        {"getProcessCaptureRequest", get(&FDSession::getProcessCaptureRequest)},
        {"isCaptureRequestReady", [this](int) { session->isCaptureRequestReady(); }},
        {"sendNotify", get(&FDSession::sendNotify)},
        {"sendCaptureResult", [this](int i) { session->sendCaptureResult(resultOf(idOf(i))); }},
        {"setSceneControl", [this](int i) { session->setSceneControl(sceneOf(i)); }},
        {"getSceneControl", get(&FDSession::getSceneControl)},
        {"getPeopleCount", [this](int) { session->getPeopleCount(); }},
        {"setTrackingMode",
         [this](int i) { session->setTrackingMode(static_cast<TrackingMode>((i + 1) % 2)); }},
        {"getTrackingMode", [this](int) { session->getTrackingMode(); }},
        {"setPTZControl", [this](int i) { session->setPTZControl(sceneOf(i)); }},
        {"getPTZControl", get(&FDSession::getPTZControl)},
        {"resetPTZScene", [this](int) { session->resetPTZScene(); }},
        {"setTrackControl", [this](int) { session->setTrackControl({}); }},
        {"getTrackControl", get(&FDSession::getTrackControl)},
        {"setSceneCallback", [this](int) { replaceObserver(); }},
        {"pass", [this](int) { pass(); }}};
};

TEST_F(RaceTest, RunsEachOperationAgainstThoseThatTouchTheSame) {
    const std::vector<std::vector<std::string>> races = {
        {"setCallback", "sendNotify"},
        {"setCallback", "sendCaptureResult", "pass"},
        {"configure", "getBufferForId", "processCaptureRequest"},
        {"configure", "processCaptureRequest", "sendCaptureResult", "pass"},
        {"configure", "getConfiguration"},
        {"processCaptureRequest", "isCaptureRequestReady", "getProcessCaptureRequest"},
        {"setSceneCallback", "setSceneControl", "setPTZControl", "setTrackingMode",
         "setTrackControl", "sendNotify"},
        {"setSceneControl", "getSceneControl"},
        {"setSceneControl", "getPeopleCount"},
        {"setTrackingMode", "getTrackingMode"},
        {"setPTZControl", "getPTZControl", "resetPTZScene"},
        {"setTrackControl", "getTrackControl"}};
    configure();
    host::setProperty("vendor.zoru.flipped", "true");
    callback->during = [] { std::this_thread::yield(); };  // on a busy processor, too
    for (const auto& names : races) {
        std::vector<Side> sides;
        for (const std::string& name : names)
            sides.push_back({name, operations.at(name)});
        race(sides, 300);
    }
    race({operations.begin(), operations.end()}, 100);
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
    // l: a line of the log, o: the observer, m: the mapper, c: the client, .: lets go of the lock.
    const std::map<std::string, std::string> places = {
        {"configure", "lLM."},
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
        {
            const host::ScopedLogSink scope(trace);
            trace.noteAt(observer.inside, 'o');
            trace.noteAt(sessionMapper().during, 'm');
            trace.noteAt(afterUnlock, '.');
            operation(3);
        }
        observer.inside = callback->during = sessionMapper().during = afterUnlock = nullptr;
        const auto other = places.find(name);
        EXPECT_EQ(trace.places, other != places.end() ? other->second : ".") << name;
    }
}

TEST_F(RaceTest, DeliversToTheCallbackThatIsSetBeforeTheFrameIsTurned) {
    Deliveries later;
    configure();
    submit(1, 1);
    session->sendCaptureResult(resultOf(1));
    host::setProperty("vendor.zoru.flipped", "true");
    // What the turning needs first is the lock, for the wrapper.
    afterUnlock = [&] { session->handleSetCallback(new Callback(later)); };
    pass();
    EXPECT_EQ(deliveries.count(), 0U);
    EXPECT_EQ(later.count(), 2U);  // the frame, and the request that has grown old
    session->handleSetCallback(nullptr);
}

TEST_F(RaceTest, LetsGoOfNoObserverThatIsAboutToBeCalled) {
    session->setSceneCallback(&observer);
    std::optional<Meanwhile> letGo;
    afterUnlock = [&] {
        letGo.emplace([this] { session->setSceneCallback(nullptr); }, Other::WAITS);
    };
    session->setTrackControl({});
    EXPECT_TRUE(letGo.has_value());
}

TEST_F(RaceTest, AnswersModeOffWhenNoStepOfAFollowerIsUnderWay) {
    const sp<control::SessionControl> controls = new control::SessionControl(session, {});
    SceneControl before = {};
    session->getPTZControl(before);
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
    EXPECT_EQ(view.crops.size(), before.crops.size());
}
#endif

}  // namespace testing_support
