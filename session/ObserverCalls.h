#pragma once

#include <android-base/thread_annotations.h>

#include <algorithm>
#include <condition_variable>
#include <cstdint>
#include <iterator>
#include <mutex>
#include <thread>
#include <vector>

#include "UniqueLock.h"

namespace vendor::zoru::zoruprovider::fdstream::V1_0::implementation {

class ISceneCallback;

/**
 * Which threads are calling which observer. Whoever replaces an observer waits here for the calls
 * of the old one.
 *
 * A call that holds the session's lock keeps other threads from replacing the observer anyway. It
 * is recorded for its own thread: inside such a call nobody waits for the calls to end, the client
 * should not be notified, and the monitor thread, which may need the lock, is not joined.
 *
 * Thread-safe; no other lock is taken under the one in here.
 */
class ObserverCalls {
public:
    /** Whether the calling thread holds the session's lock during the call. */
    enum class SessionLock { HELD, FREE };

    /** Records a call of the calling thread for the scope of this object. */
    class Scope {
    public:
        Scope(ObserverCalls& calls, const ISceneCallback* observer, SessionLock sessionLock)
            : mCalls(calls) {
            const std::lock_guard<std::mutex> lock(mCalls.mMutex);
            mCalls.mRunning.push_back(
                {std::this_thread::get_id(), observer, mCalls.mNextNumber++, sessionLock});
        }
        ~Scope() {
            const std::lock_guard<std::mutex> lock(mCalls.mMutex);
            auto& running = mCalls.mRunning;
            const auto latest = std::find_if(running.rbegin(), running.rend(), isOwn);
            running.erase(std::next(latest).base());
            mCalls.mEnded.notify_all();
        }
        Scope(const Scope&) = delete;
        Scope& operator=(const Scope&) = delete;

    private:
        ObserverCalls& mCalls;
    };

    /**
     * Waits until the calls that are running now have ended, except those of `current`. Does not
     * wait when the calling thread is inside a call itself.
     */
    void waitForOthersThan(const ISceneCallback* current) {
        UniqueLock lock(mMutex);
        if (std::any_of(mRunning.begin(), mRunning.end(), isOwn)) return;
        const uint64_t later = mNextNumber;
        mEnded.wait(lock, [&]() REQUIRES(mMutex) {
            return std::none_of(mRunning.begin(), mRunning.end(), [&](const Call& call) {
                return call.observer != current && call.number < later;
            });
        });
    }

    /** Whether the calling thread is inside a call that holds the session's lock. */
    [[nodiscard]] bool isInsideLocked() {
        const std::lock_guard<std::mutex> lock(mMutex);
        return std::any_of(mRunning.begin(), mRunning.end(), [](const Call& call) {
            return isOwn(call) && call.sessionLock == SessionLock::HELD;
        });
    }

private:
    struct Call {
        std::thread::id thread;
        const ISceneCallback* observer;
        uint64_t number;
        SessionLock sessionLock;
    };

    static bool isOwn(const Call& call) { return call.thread == std::this_thread::get_id(); }

    std::mutex mMutex;
    std::condition_variable mEnded;
    std::vector<Call> mRunning GUARDED_BY(mMutex);
    uint64_t mNextNumber GUARDED_BY(mMutex) = 0;
};

}  // namespace vendor::zoru::zoruprovider::fdstream::V1_0::implementation
