#pragma once

#include <android/hardware/camera/device/3.2/types.h>

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <deque>

namespace host {

/**
 * The requests that were accepted and not yet answered, each with its frame number and buffer id.
 * At a configuration they are left over: the session drops those that it still has, and those that
 * the provider has taken, or answered already, are still to be handed over before all newer ones.
 * Nobody says which is which. So a left-over request is taken off by its own result, and when a
 * newer configuration's result is handed over; all of them when nothing was for kLeftOverPatience,
 * because a result that waits is handed over within less. REQUIRES: one thread at a time.
 */
class RequestsOnTheWay {
public:
    using CaptureRequest = ::android::hardware::camera::device::V3_2::CaptureRequest;
    using CaptureResult = ::android::hardware::camera::device::V3_2::CaptureResult;
    using Time = std::chrono::steady_clock::time_point;

    struct Asked {
        uint64_t serial;
        uint64_t configuration;
        uint32_t frameNumber;
        uint64_t bufferId;
    };

    /** Why there is room for no more; null when there is. */
    [[nodiscard]] const char* problem(Time now);
    /** Counts a request, as one of the current configuration. */
    Asked add(const CaptureRequest& request);
    /** Counts it no more, unless its result has come already. */
    void takeBack(const Asked& asked);
    /** It was accepted; whatever configuration came meanwhile, it may be one of the current. */
    void keep(const Asked& asked);
    void handedOver(const CaptureResult& result, Time now);
    void restart(Time now);
    [[nodiscard]] bool isOfNow(const Asked& asked) const {
        return asked.configuration == mConfiguration;
    }

private:
    void eraseAt(size_t index);
    void forgetFirst(size_t count);
    /** Whose result it is; the number of requests when it is nobody's. */
    [[nodiscard]] size_t indexOf(const CaptureResult& result, bool isFilled) const;

    uint64_t mConfiguration = 0;
    uint64_t mSerial = 0;
    std::deque<Asked> mAll;  // those of older configurations first
    size_t mLeftOver = 0;    // so many
    Time mQuietSince;        // valid while some are left over
};

}  // namespace host
