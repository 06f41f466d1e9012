#pragma once

#include <android-base/thread_annotations.h>

#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <mutex>
#include <optional>
#include <string>

#include "source/ffmpeg.h"
#include "source/picture_shape.h"
#include "view/camera_status.h"

namespace camera {

/** A frame that is due. Moved, not copied. */
struct DueFrame {
    FramePtr frame;
    PictureShape shape;
    int64_t dueNs = 0;  ///< of CLOCK_MONOTONIC
};

/**
 * What is between the thread that decodes and the one that fills: the newest frame alone, or word
 * that there is no source. Any thread.
 */
class Handover {
public:
    // The decoding thread's.

    /** In place of one that nobody has taken, which is dropped. */
    void put(DueFrame&& frame);
    /** There will be no frames until the next one is put. */
    void breakDown(const std::string& reason);
    void setRate(double framesPerSecond);
    /** Until a frame is asked for. False at the end. */
    bool waitUntilWanted();

    // The filling thread's.

    struct News {
        std::optional<DueFrame> frame;
        uint64_t breakdowns = 0;  ///< since the beginning
        bool isBroken = false;
        std::string reason;    ///< of the last one
        int64_t periodNs = 0;  ///< of the frames, if there were any
        bool isEnd = false;
    };
    /** The newest frame, once; waits for one no longer than that. */
    News take(std::chrono::microseconds patience);
    /** Whether a request waits for a frame; for sources without a pace. */
    void want(bool isWanted);
    /** Nobody waited for a frame that was taken. */
    void countDropped();

    /** Ends both threads' waits. */
    void end();
    CameraStatus status() const;

private:
    mutable std::mutex mMutex;
    std::condition_variable mForFilling;
    std::condition_variable mForDecoding;
    std::optional<DueFrame> mNewest GUARDED_BY(mMutex);
    std::string mReason GUARDED_BY(mMutex);
    CameraStatus mStatus GUARDED_BY(mMutex);
    uint64_t mBreakdowns GUARDED_BY(mMutex) = 0;
    bool mIsWanted GUARDED_BY(mMutex) = false;
    bool mIsEnd GUARDED_BY(mMutex) = false;
};

}  // namespace camera
