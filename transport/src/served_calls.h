#pragma once

#include <android-base/thread_annotations.h>

#include <chrono>
#include <condition_variable>
#include <functional>
#include <memory>
#include <mutex>
#include <vector>

#include "host/remote.h"
#include "host/served_watch.h"

namespace host::detail {

/** Shared by a watch of an object and the channels that serve the object. Thread-safe. */
class ServedCalls {
public:
    explicit ServedCalls(std::function<void(ServedEnd)> ended) : mEnded(std::move(ended)) {}

    void begin();
    void end();
    /** False when calls are still running after that time. */
    [[nodiscard]] bool waitForAll(std::chrono::milliseconds patience);

    void channelEnded(ServedEnd how);
    /** From now on `ended` is not called. */
    void callOff();

private:
    std::mutex mMutex;
    std::condition_variable mNoneLeft;
    int mUnderWay GUARDED_BY(mMutex) = 0;
    std::function<void(ServedEnd)> mEnded GUARDED_BY(mMutex);
};

/** The watches of an object. Each channel that serves it looks them up once. */
using Watches = std::vector<std::shared_ptr<ServedCalls>>;
Watches watchesOf(const IBase* object);

}  // namespace host::detail
