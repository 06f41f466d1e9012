#pragma once

#include <algorithm>
#include <condition_variable>
#include <cstdint>
#include <iterator>
#include <mutex>
#include <thread>
#include <vector>

namespace vendor::zoru::zoruprovider::fdstream::V1_0::implementation {

class ISceneCallback;

/**
 * Who is inside a call of which observer, so that whoever replaces an observer can wait until
 * nobody is inside the old one; and who has the session locked meanwhile. Thread-safe; its lock is
 * the innermost.
 */
class ObserverCalls {
public:
    /** Whether the caller holds the session's lock during the call. */
    enum class SessionLock { HELD, FREE };

    void begin(const ISceneCallback* observer, SessionLock sessionLock) {
        const std::lock_guard<std::mutex> lock(mMutex);
        mCalls.push_back({std::this_thread::get_id(), observer, mNext++, sessionLock});
    }

    /** Ends the calling thread's latest call. */
    void end() {
        const std::lock_guard<std::mutex> lock(mMutex);
        const auto latest = std::find_if(mCalls.rbegin(), mCalls.rend(), isMine);
        mCalls.erase(std::next(latest).base());
        mEnded.notify_all();
    }

    /**
     * Waits until every call has ended that is under way now, but for those of `current`; not at
     * all from inside a call.
     */
    void waitForAllBut(const ISceneCallback* current) {
        std::unique_lock<std::mutex> lock(mMutex);
        if (std::any_of(mCalls.begin(), mCalls.end(), isMine)) return;
        const uint64_t later = mNext;
        mEnded.wait(lock, [&] {
            return std::none_of(mCalls.begin(), mCalls.end(), [&](const Call& call) {
                return call.observer != current && call.number < later;
            });
        });
    }

    /** Whether the calling thread is inside a call that holds the session's lock. */
    bool isInsideLocked() {
        const std::lock_guard<std::mutex> lock(mMutex);
        return std::any_of(mCalls.begin(), mCalls.end(), [](const Call& call) {
            return isMine(call) && call.sessionLock == SessionLock::HELD;
        });
    }

private:
    struct Call {
        std::thread::id thread;
        const ISceneCallback* observer;
        uint64_t number;
        SessionLock sessionLock;
    };

    static bool isMine(const Call& call) { return call.thread == std::this_thread::get_id(); }

    std::mutex mMutex;
    std::condition_variable mEnded;
    // Guarded by mMutex.
    std::vector<Call> mCalls;
    uint64_t mNext = 0;
};

}  // namespace vendor::zoru::zoruprovider::fdstream::V1_0::implementation
