#include "host/served_watch.h"

#include <android-base/thread_annotations.h>

#include <algorithm>
#include <mutex>
#include <utility>

#include "host/unique_lock.h"
#include "served_calls.h"

namespace host {

namespace detail {

namespace {

/** Never destroyed: a channel may outlive main(). */
struct Watched {
    std::mutex mutex;
    std::vector<std::pair<const IBase*, std::shared_ptr<ServedCalls>>> all GUARDED_BY(mutex);
};

Watched& watched() {
    static auto* const instance = new Watched;
    return *instance;
}

}  // namespace

void ServedCalls::begin() {
    const std::lock_guard<std::mutex> lock(mMutex);
    ++mUnderWay;
}

void ServedCalls::end() {
    const std::lock_guard<std::mutex> lock(mMutex);
    if (--mUnderWay == 0) mNoneLeft.notify_all();
}

bool ServedCalls::waitForAll(std::chrono::milliseconds patience) {
    UniqueLock lock(mMutex);
    return mNoneLeft.wait_for(lock, patience, [this]() REQUIRES(mMutex) { return mUnderWay == 0; });
}

void ServedCalls::channelEnded(ServedEnd how) {
    std::function<void(ServedEnd)> told;
    {
        const std::lock_guard<std::mutex> lock(mMutex);
        told = mEnded;
    }
    if (told) told(how);
}

void ServedCalls::callOff() {
    std::function<void(ServedEnd)> ended;  // destroyed after the lock: what it owns may need it
    const std::lock_guard<std::mutex> lock(mMutex);
    std::swap(mEnded, ended);
}

Watches watchesOf(const IBase* object) {
    Watches found;
    const std::lock_guard<std::mutex> lock(watched().mutex);
    for (const auto& [watchedObject, calls] : watched().all) {
        if (watchedObject == object) found.push_back(calls);
    }
    return found;
}

}  // namespace detail

ServedWatch::ServedWatch(const sp<IBase>& object, std::function<void(ServedEnd)> ended)
    : mObject(object), mCalls(std::make_shared<detail::ServedCalls>(std::move(ended))) {
    const std::lock_guard<std::mutex> lock(detail::watched().mutex);
    detail::watched().all.emplace_back(mObject.get(), mCalls);
}

ServedWatch::~ServedWatch() {
    mCalls->callOff();
    const std::lock_guard<std::mutex> lock(detail::watched().mutex);
    auto& all = detail::watched().all;
    all.erase(std::find_if(all.begin(), all.end(),
                           [this](const auto& entry) { return entry.second == mCalls; }));
}

bool ServedWatch::waitUntilAnswered(std::chrono::milliseconds patience) {
    return mCalls->waitForAll(patience);
}

}  // namespace host
