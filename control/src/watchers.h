#pragma once

#include <android-base/thread_annotations.h>

#include <condition_variable>
#include <cstdint>
#include <deque>
#include <map>
#include <memory>
#include <mutex>
#include <thread>

#include "FDSession.h"
#include "IFDControl.h"

namespace control {

/**
 * The one observer of the session, for any number of watchers: each is a thread that asks, and has
 * a queue of its own with at most kMaxWaitingEvents. The observer's operations append to the queues
 * and wait for nobody; an event is kept once, whoever waits for it. Any thread.
 */
class Watchers
    : public ::vendor::zoru::zoruprovider::fdstream::V1_0::implementation::ISceneCallback {
public:
    /** As IFDControl::watch(), for the calling thread. */
    Event next();
    /** The calling thread watches no more. */
    void forget();
    /** From now on next() does not wait. */
    void close();

    void onSceneControl(SceneControl sceneControl) override;
    void onPTZControl(SceneControl ptzControl) override;
    void onTrackControl(TrackControl trackControl) override;
    void onTrackingMode(TrackingMode trackingMode) override;

private:
    struct Waiting {
        std::shared_ptr<const Event> event;
        uint64_t missedBefore;
    };
    struct Queue {
        std::deque<Waiting> waiting;
        uint64_t missed = 0;  // after the last one that waits
    };

    void append(Event&& event);

    std::mutex mMutex;
    std::condition_variable mChanged;
    std::map<std::thread::id, Queue> mQueues GUARDED_BY(mMutex);
    bool mIsClosed GUARDED_BY(mMutex) = false;
};

}  // namespace control
