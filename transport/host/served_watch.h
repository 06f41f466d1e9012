#pragma once

#include <android/hidl/base/1.0/IBase.h>

#include <chrono>
#include <functional>
#include <memory>

#include "host/limits.h"

namespace host {

namespace detail {
class ServedCalls;
}

/** How a channel over which an object was served has ended. */
enum class ServedEnd {
    LET_GO,    ///< the other process has closed the channel, or sent something that is no call
    GIVEN_UP,  ///< the last answer could not be sent: the other process no longer waits for it
};

/**
 * Watches the channels over which an object of this process is served, such as a callback that was
 * passed in a call, for the scope of this object. Make it before the object is passed on.
 * Thread-safe; keeps a reference to the object.
 */
class ServedWatch {
public:
    /** `ended`, if given, is called once for each channel that ends, on that channel's thread. */
    explicit ServedWatch(const ::android::sp<::android::hidl::base::V1_0::IBase>& object,
                         std::function<void(ServedEnd)> ended = {});
    /** A call of `ended` may still begin or be running, so `ended` must own what it captures. */
    ~ServedWatch();
    ServedWatch(const ServedWatch&) = delete;
    ServedWatch& operator=(const ServedWatch&) = delete;

    /**
     * Waits until every call that has reached the object is answered: a process that ends earlier
     * leaves its caller without an answer. False when that takes longer. REQUIRES: not called from
     * inside such a call, which would wait for itself.
     */
    bool waitUntilAnswered(std::chrono::milliseconds patience = kCallPatience);

private:
    const ::android::sp<::android::hidl::base::V1_0::IBase> mObject;
    const std::shared_ptr<detail::ServedCalls> mCalls;
};

}  // namespace host
