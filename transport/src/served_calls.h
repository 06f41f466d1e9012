#pragma once

#include <chrono>
#include <condition_variable>
#include <functional>
#include <memory>
#include <mutex>
#include <vector>

#include "host/remote.h"
#include "host/served_watch.h"

namespace host::detail {

/** What a watch of an object shares with the channels that serve it. Thread-safe. */
class ServedCalls {
public:
    explicit ServedCalls(std::function<void(ServedEnd)> ended) : mEnded(std::move(ended)) {}

    void begin();
    void end();
    /** False when calls are still under way after so long. */
    bool waitForAll(std::chrono::milliseconds patience);

    void channelEnded(ServedEnd how);
    /** From now on nobody is told. */
    void callOff();

private:
    std::mutex mMutex;
    std::condition_variable mNoneLeft;
    // Guarded by mMutex.
    int mUnderWay = 0;
    std::function<void(ServedEnd)> mEnded;
};

/** The watches of an object, looked up once for each channel that serves it. */
using Watches = std::vector<std::shared_ptr<ServedCalls>>;
Watches watchesOf(const IBase* object);

}  // namespace host::detail
