#pragma once

#include <algorithm>
#include <condition_variable>
#include <mutex>
#include <thread>
#include <utility>
#include <vector>

namespace vendor::zoru::zoruprovider::fdstream::V1_0::implementation {

class ISceneCallback;

/**
 * Who is inside a call of which observer, so that whoever replaces an observer can wait until
 * nobody is inside the old one. Thread-safe; its lock is the innermost.
 */
class ObserverCalls {
public:
    void begin(const ISceneCallback* observer) {
        const std::lock_guard<std::mutex> lock(mMutex);
        mCalls.emplace_back(std::this_thread::get_id(), observer);
    }

    /** Ends the calling thread's latest call. */
    void end() {
        const std::lock_guard<std::mutex> lock(mMutex);
        const auto latest = std::find_if(mCalls.rbegin(), mCalls.rend(), isMine);
        mCalls.erase(std::next(latest).base());
        mEnded.notify_all();
    }

    /** Waits until no thread is inside `observer`; not at all from inside a call. */
    void waitUntilLeft(const ISceneCallback* observer) {
        std::unique_lock<std::mutex> lock(mMutex);
        if (std::any_of(mCalls.begin(), mCalls.end(), isMine)) return;
        mEnded.wait(lock, [&] {
            return std::none_of(mCalls.begin(), mCalls.end(),
                                [&](const Call& call) { return call.second == observer; });
        });
    }

private:
    using Call = std::pair<std::thread::id, const ISceneCallback*>;

    static bool isMine(const Call& call) { return call.first == std::this_thread::get_id(); }

    std::mutex mMutex;
    std::condition_variable mEnded;
    std::vector<Call> mCalls;  // guarded by mMutex
};

}  // namespace vendor::zoru::zoruprovider::fdstream::V1_0::implementation
