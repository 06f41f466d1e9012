#pragma once

#include <android/hardware/camera/device/3.2/types.h>
#include <hidl/Status.h>
#include <utils/StrongPointer.h>
#include <vendor/zoru/zoruprovider/fdstream/1.0/IFDSession.h>
#include <vendor/zoru/zoruprovider/fdstream/1.0/IFDSessionCallback.h>

#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <deque>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include "host/buffer.h"
#include "host/served_watch.h"
#include "stream_client.h"

namespace tools {

/**
 * The part of a stream's client that is called: the callback, and who hears of the provider's
 * death. Owns the buffers and all other state that a late call could need. Results come one at a
 * time.
 */
class StreamReceiver : public vendor::zoru::zoruprovider::fdstream::V1_0::IFDSessionCallback,
                       public android::hardware::hidl_death_recipient {
public:
    using CaptureRequest = android::hardware::camera::device::V3_2::CaptureRequest;
    using CaptureResult = android::hardware::camera::device::V3_2::CaptureResult;
    using IFDSession = vendor::zoru::zoruprovider::fdstream::V1_0::IFDSession;
    template <typename T>
    using Return = android::hardware::Return<T>;

    StreamReceiver(android::sp<IFDSession> session, const StreamSettings& settings);

    bool allocateBuffers();
    /** Asks for a next frame in each buffer, now or when the pace lets it. */
    void begin();
    /** The stream that its buffers are for. */
    android::hardware::camera::device::V3_2::StreamConfiguration configuration() const;
    // As the client's own.
    std::optional<Answer> next(std::chrono::milliseconds patience);
    /** The buffer is free: asks for the next frame in it, or keeps it for who makes the requests.
     */
    void release(uint32_t index);
    void stopAsking();
    uint32_t asked() const;
    uint32_t wanted() const;
    bool isIdle() const;
    Loss loss() const;
    std::string lossInWords() const;

    /** The provider is gone. */
    void lose(const std::string& how);
    /** The session has it from now on. */
    void handedOver();
    /** The session does not call any more. */
    void letGo(host::ServedEnd end);
    /** Whether the session still has it; it is no loss from now on when it has not. */
    bool leave();
    /** Waits, not for ever, until the session does not call any more. */
    void waitUntilLetGo();

    Return<void> processCaptureResult(
        const android::hardware::hidl_vec<CaptureResult>& results) override;
    Return<void> notify(
        const android::hardware::hidl_vec<vendor::zoru::zoruprovider::fdstream::V1_0::FDNotifyMsg>&
            msgs) override;
    void serviceDied(uint64_t cookie,
                     const android::wp<android::hidl::base::V1_0::IBase>& who) override;

private:
    using Places = std::vector<uint32_t>;

    struct Slot {
        explicit Slot(host::Buffer allocated) : buffer(std::move(allocated)) {}

        host::Buffer buffer;
        // Guarded by the receiver's mMutex.
        bool handleSent = false;
        bool underWay = false;
        uint32_t frameNumber = 0;
        Clock::time_point submission;
        camera::Told told;
    };

    bool isPaced() const { return mPeriod != Clock::duration::zero(); }
    /** Asks for the next frame in a buffer that was kept; false when there is none to ask in. */
    bool askForOne();
    /**
     * None while too many answers wait. From the first time that there is none, without a pace none
     * is kept any more.
     */
    std::optional<uint32_t> takeFree();
    /** Asks for the next frame in this buffer, if one is left to ask for. False when refused. */
    bool submit(uint32_t index);
    std::optional<CaptureRequest> makeRequest(uint32_t index);
    void refused(uint32_t index);
    /** Posts the answer that a result is, and gives the buffers that are free again. */
    Places receive(const CaptureResult& result, Clock::time_point arrival);
    // REQUIRES: mMutex is held.
    /** Whether so much waits to be looked at that no more is asked for. */
    bool isFarBehind() const;
    /** Whether the result gives this buffer back. */
    bool answers(const CaptureResult& result, uint64_t index) const;
    void postLocked(Answer answer);
    /** Lends this buffer instead of those whose pictures nobody has read, which are free again. */
    Places lendLocked(Answer& answer);
    void loseLocked(Loss loss, const std::string& how);

    // Constant once the stream has started.
    const android::sp<IFDSession> mSession;
    const StreamSettings mSettings;
    const Clock::duration mPeriod;
    const uint64_t mFirstBufferId;
    std::vector<Slot> mSlots;

    // Held while a request is made, which the session gets in the order of their numbers; before
    // mMutex.
    std::mutex mAsking;
    mutable std::mutex mMutex;
    std::condition_variable mPosted;
    // Guarded by mMutex.
    uint32_t mWanted;
    uint32_t mAsked;
    uint32_t mUnderWay = 0;
    std::deque<uint32_t> mFree;
    // Free buffers are kept: with a pace always, and else until begin() is done and while too many
    // answers wait, so that requests are made by one thread at a time and go out in the order of
    // their numbers.
    bool mCollecting = true;
    Clock::time_point mDue;
    std::deque<Answer> mAnswers;
    Loss mLoss = Loss::None;
    std::string mLossInWords;
    enum class Held { NotYet, BySession, NoMore } mHeld = Held::NotYet;
    bool mLeaving = false;
};

}  // namespace tools
