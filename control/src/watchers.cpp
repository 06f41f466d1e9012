#include "watchers.h"

#include <android-base/thread_annotations.h>

#include <chrono>
#include <utility>

#include "host/unique_lock.h"

namespace control {

namespace {

/** Well below what a call may take. */
constexpr std::chrono::milliseconds kPatience(250);

int64_t nowNs() {
    const auto now = std::chrono::steady_clock::now().time_since_epoch();
    return std::chrono::duration_cast<std::chrono::nanoseconds>(now).count();
}

Event eventOf(Event::Kind kind) {
    Event event;
    event.kind = kind;
    event.timeNs = nowNs();
    return event;
}

}  // namespace

Event Watchers::next() {
    std::shared_ptr<const Event> first;  // copied without the lock, which operations wait for
    uint64_t missed = 0;
    {
        host::UniqueLock lock(mMutex);
        const auto [found, isNew] = mQueues.try_emplace(std::this_thread::get_id());
        if (isNew) return {};
        Queue& queue = found->second;
        mChanged.wait_for(lock, kPatience, [&]() REQUIRES(mMutex) {
            return mIsClosed || !queue.waiting.empty() || queue.missed > 0;
        });
        if (queue.waiting.empty()) {
            missed = std::exchange(queue.missed, 0);
        } else {
            first = std::move(queue.waiting.front().event);
            missed = queue.waiting.front().missedBefore;
            queue.waiting.pop_front();
        }
    }
    Event event = first != nullptr ? *first : Event();
    event.missed = missed;
    return event;
}

void Watchers::forget() {
    const std::lock_guard<std::mutex> lock(mMutex);
    mQueues.erase(std::this_thread::get_id());
}

void Watchers::close() {
    const std::lock_guard<std::mutex> lock(mMutex);
    mIsClosed = true;
    mChanged.notify_all();
}

void Watchers::onSceneControl(SceneControl sceneControl) {
    Event event = eventOf(Event::Kind::SCENE);
    event.scene = std::move(sceneControl);
    append(std::move(event));
}

void Watchers::onPTZControl(SceneControl ptzControl) {
    Event event = eventOf(Event::Kind::PTZ);
    event.scene = std::move(ptzControl);
    append(std::move(event));
}

void Watchers::onTrackControl(TrackControl trackControl) {
    Event event = eventOf(Event::Kind::TRACK);
    event.track = trackControl;
    append(std::move(event));
}

void Watchers::onTrackingMode(TrackingMode trackingMode) {
    Event event = eventOf(Event::Kind::MODE);
    event.mode = trackingMode;
    append(std::move(event));
}

void Watchers::append(Event&& event) {
    // A scene of the provider's own that is too large to cross counts as missed.
    const bool crosses = event.scene.crops.size() <= kMaxCrops;
    const auto shared = std::make_shared<const Event>(std::move(event));
    const std::lock_guard<std::mutex> lock(mMutex);
    for (auto& [thread, queue] : mQueues) {
        if (crosses && queue.waiting.size() < kMaxWaitingEvents) {
            queue.waiting.push_back({shared, std::exchange(queue.missed, 0)});
        } else {
            ++queue.missed;
        }
    }
    mChanged.notify_all();
}

}  // namespace control
