#include <utils/Thread.h>

#include <android-base/thread_annotations.h>
#include <android/log.h>
#include <sys/resource.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <atomic>
#include <condition_variable>
#include <mutex>
#include <string>

#include "host/threads.h"
#include "host/unique_lock.h"
#include "thread_registry.h"

namespace android {

namespace {
constexpr size_t kKernelNameLength = 15;

bool startThread(pthread_t* handle, size_t stack, void* (*entry)(void*), void* argument) {
    if (host::takeThreadStartFailure()) return false;
    pthread_attr_t attributes;
    pthread_attr_init(&attributes);
    const bool sized = stack == 0 || pthread_attr_setstacksize(&attributes, stack) == 0;
    const bool started = sized && pthread_create(handle, &attributes, entry, argument) == 0;
    pthread_attr_destroy(&attributes);
    return started;
}
}  // namespace

struct Thread::State {
    std::atomic<bool> exitPending{false};
    std::atomic<bool> running{false};
    /** The process that started the thread: a forked child has no such thread to wait for. */
    std::atomic<pid_t> process{0};

    std::mutex mutex;
    std::condition_variable changed;
    pthread_t handle GUARDED_BY(mutex){};  ///< valid while `joinable`
    bool joinable GUARDED_BY(mutex) = false;
    bool joining GUARDED_BY(mutex) = false;

    bool isOwnThread() const REQUIRES(mutex) {
        return joinable && pthread_equal(handle, pthread_self()) != 0;
    }
};

namespace {
/** What run() hands to the new thread. */
template <typename State>
struct Start {
    sp<Thread> object;
    std::shared_ptr<State> state;
    std::string name;
    int32_t priority;
};
}  // namespace

Thread::Thread(bool /*canCallJava*/) : mState(std::make_shared<State>()) {}

Thread::~Thread() {
    const std::lock_guard<std::mutex> lock(mState->mutex);
    if (!mState->joinable || mState->process != getpid()) return;
    pthread_detach(mState->handle);
    mState->joinable = false;
}

status_t Thread::run(const char* name, int32_t priority, size_t stack) {
    host::UniqueLock lock(mState->mutex);
    if (mState->running) return INVALID_OPERATION;

    auto start = std::make_unique<Start<State>>();
    lock.unlock();  // the first reference runs onFirstRef(), which may call this object
    start->object = this;
    start->state = mState;
    start->name = std::string(name != nullptr ? name : "").substr(0, kKernelNameLength);
    start->priority = priority;
    lock.lock();
    mState->changed.wait(lock, [this]() REQUIRES(mState->mutex) { return !mState->joining; });
    if (mState->running) {
        lock.unlock();
        return INVALID_OPERATION;  // another run() was faster; drops `start` without the lock
    }
    // An earlier thread, perhaps one that another run() has started meanwhile.
    if (mState->joinable) pthread_detach(mState->handle);
    mState->joinable = false;

    mState->exitPending = false;
    mState->running = true;
    mState->process = getpid();
    host::detail::threadStarted();
    if (!startThread(&mState->handle, stack, &Thread::entry, start.get())) {
        host::detail::threadEnded();
        mState->running = false;
        lock.unlock();
        return UNKNOWN_ERROR;  // drops `start`, and the thread's reference, without the lock
    }
    start.release();  // NOLINT(bugprone-unused-return-value): the thread owns it now
    mState->joinable = true;
    return NO_ERROR;
}

void* Thread::entry(void* argument) {
    const std::unique_ptr<Start<State>> start(static_cast<Start<State>*>(argument));
    const std::shared_ptr<State> state = start->state;
    pthread_setname_np(pthread_self(), start->name.c_str());
    if (start->priority != PRIORITY_DEFAULT) {
        setpriority(PRIO_PROCESS, static_cast<id_t>(syscall(SYS_gettid)), start->priority);
    }
    {
        // Waits until run() has stored the handle, which join() needs, and released the mutex.
        const std::lock_guard<std::mutex> started(state->mutex);
    }

    sp<Thread> object = std::move(start->object);
    const wp<Thread> weak(object);
    bool goOn = object->readyToRun() == NO_ERROR && !state->exitPending;
    while (goOn) {
        goOn = object->threadLoop() && !state->exitPending;
        if (!goOn) break;
        object.clear();
        object = weak.promote();
        goOn = object != nullptr;
    }
    state->exitPending = true;
    state->running = false;
    object.clear();  // may run the destructor on this thread
    host::detail::threadEnded();
    return nullptr;
}

void Thread::requestExit() {
    mState->exitPending = true;
}

status_t Thread::readyToRun() {
    return NO_ERROR;
}

bool Thread::exitPending() const {
    return mState->exitPending;
}

bool Thread::isRunning() const {
    return mState->running;
}

bool Thread::wouldBlock(const char* operation) const {
    if (mState->process != getpid()) return false;
    {
        const std::lock_guard<std::mutex> lock(mState->mutex);
        if (!mState->running || !mState->isOwnThread()) return false;
    }
    __android_log_print(ANDROID_LOG_WARN, "Thread",
                        "Thread (this=%p): don't call %s() from this Thread object's thread. "
                        "It's a guaranteed deadlock!",
                        static_cast<const void*>(this), operation);
    return true;
}

status_t Thread::join() {
    const std::shared_ptr<State> state = mState;
    if (state->process != getpid()) return NO_ERROR;
    if (wouldBlock("join")) return WOULD_BLOCK;
    host::UniqueLock lock(state->mutex);
    if (state->isOwnThread()) return NO_ERROR;  // its loop has ended
    state->changed.wait(lock, [&]() REQUIRES(state->mutex) { return !state->joining; });
    if (!state->joinable) return NO_ERROR;
    state->joining = true;
    const pthread_t handle = state->handle;
    lock.unlock();
    pthread_join(handle, nullptr);
    lock.lock();
    state->joinable = false;
    state->joining = false;
    state->changed.notify_all();
    return NO_ERROR;
}

status_t Thread::requestExitAndWait() {
    if (wouldBlock("requestExitAndWait")) return WOULD_BLOCK;
    requestExit();
    const status_t status = join();
    mState->exitPending = false;
    return status;
}

}  // namespace android
