#pragma once

#include <android/hardware/camera/device/3.2/types.h>
#include <utils/StrongPointer.h>

#include <atomic>
#include <cstdint>
#include <deque>
#include <functional>
#include <mutex>
#include <string>

#include "FDSession.h"
#include "source/handover.h"
#include "source/picture_scaler.h"
#include "source/stop_signal.h"

namespace camera {

/** Says a line; must not wait for anybody. */
using Say = std::function<void(const std::string& line)>;

/**
 * Takes the session's requests as they come and fills the oldest with each frame that is due. A
 * request whose buffer is no longer the one that it came with is answered with an error. Each frame
 * is announced before its result, by the same thread.
 */
class Filler {
public:
    using Session = vendor::zoru::zoruprovider::fdstream::V1_0::implementation::FDSession;

    /** `isPaced`: frames come by themselves. REQUIRES: both references outlive it. */
    Filler(android::sp<Session> session, Handover& handover, const StopSignal& stop, bool isPaced,
           Say say);

    /** Until the handover ends; answers what it has kept. */
    void run();

    // Any thread.

    /** There is a client that is told of frames, or none: what is kept was a client's that went. */
    void clientCame() { mHasClient = true; }
    void clientWent();

private:
    using CaptureRequest = android::hardware::camera::device::V3_2::CaptureRequest;
    using BufferStatus = android::hardware::camera::device::V3_2::BufferStatus;
    using Message = vendor::zoru::zoruprovider::fdstream::V1_0::FDNotifyMsg;

    struct Kept {
        CaptureRequest request;
        android::sp<android::GraphicBuffer> buffer;
    };

    void collect();
    void answerKept();
    void present(const DueFrame& frame);
    bool fill(const DueFrame& frame, const Kept& kept, Rect& view);
    bool draw(const DueFrame& frame, android::GraphicBuffer& buffer, Rect& view);
    bool isCurrent(const Kept& kept) const;
    bool isFree(const Kept& kept) const;
    Rect viewOf(const PictureShape& shape, FrameSize stream) const;
    void announce(const DueFrame& frame, uint32_t number, const Rect& view);
    void tell(Message message);
    void tellBreakdown(const Handover::News& news);
    void answerAtPace(const Handover::News& news);
    void answer(Kept&& kept, BufferStatus status);
    void sayOnce(FrameSize size, const std::string& line);

    const android::sp<Session> mSession;
    Handover& mHandover;
    const StopSignal& mStop;
    const bool mIsPaced;
    const Say mSay;
    std::atomic<bool> mHasClient{false};
    std::atomic<uint64_t> mDepartures{0};

    // The filling thread's.
    std::deque<Kept> mKept;
    PictureScaler mScaler;
    uint64_t mSeenDepartures = 0;
    uint64_t mSaidBreakdowns = 0;
    uint64_t mToldBreakdowns = 0;
    StopSignal::Clock::time_point mNextError;
    FrameSize mComplainedOf{};
};

}  // namespace camera
