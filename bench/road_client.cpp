#include "road_client.h"

#include <vendor/zoru/zoruprovider/fdstream/1.0/IFDSessionCallback.h>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <deque>
#include <mutex>
#include <optional>
#include <thread>
#include <utility>
#include <vector>

#include "host/channel.h"
#include "marked_frame.h"
#include "records.h"

namespace bench {

namespace {

using android::hardware::hidl_vec;
using android::hardware::camera::device::V3_2::BufferStatus;
using vendor::zoru::zoruprovider::fdstream::V1_0::FDNotifyMsg;
using vendor::zoru::zoruprovider::fdstream::V1_0::IFDSession;
using vendor::zoru::zoruprovider::fdstream::V1_0::IFDSessionCallback;

using Clock = std::chrono::steady_clock;

constexpr std::chrono::seconds kPatience(20);

bool accepted(const Return<Status>& answer) {
    return answer.isOk() && static_cast<Status>(answer) == Status::OK;
}

}  // namespace

/** The callback. Owns the buffers, which a late call could need. */
class RoadClient::Receiver : public IFDSessionCallback {
public:
    Receiver(sp<IFDSession> session, FrameSize size, uint32_t buffers, Asking asking, bool pictures)
        : mSession(std::move(session)), mAsking(asking) {
        if (pictures) mExpected.emplace();
        for (uint64_t id = 0; id < buffers; ++id) {
            mSlots.push_back({FrameBuffer(size, size.width)});
            mFree.push_back(id);
        }
    }

    bool run(uint32_t frames) {
        mWanted += frames;
        // In the other case the callback goes on with the buffers that come back.
        const uint32_t own = mAsking == Asking::InRun ? frames : countOfFree();
        for (uint32_t i = 0; i < own; ++i) {
            const std::optional<uint64_t> id = takeFree();
            if (!id) return false;
            if (!ask(*id)) giveBack(*id);
        }
        std::unique_lock<std::mutex> lock(mMutex);
        mChanged.wait_for(lock, kPatience, [&] { return mWrong || mCame == mWanted; });
        return !mWrong && mCame == mWanted;
    }

    Clock::time_point lastArrival() const { return mLastArrival; }

    Return<void> processCaptureResult(const hidl_vec<CaptureResult>& results) override {
        mLastArrival = Clock::now();
        const CaptureResult& result = results[0];
        const StreamBuffer& buffer = result.outputBuffers[0];
        const bool right = buffer.status == BufferStatus::OK && buffer.bufferId < mSlots.size() &&
                           isExpected(mSlots[buffer.bufferId].frame.luma(), result.frameNumber);
        if (right) {
            if (mAsking == Asking::InRun || !ask(buffer.bufferId)) giveBack(buffer.bufferId);
        }
        count(right);
        return {};
    }
    Return<void> notify(const hidl_vec<FDNotifyMsg>& /*msgs*/) override { return {}; }

private:
    /** Used by whoever has its buffer in hand. */
    struct Slot {
        FrameBuffer frame;
        bool isKnown = false;
    };

    /** False when all that are wanted have been asked for. */
    bool ask(uint64_t id) {
        uint32_t number = mAsked;
        do {
            if (number == mWanted) return false;
        } while (!mAsked.compare_exchange_weak(number, number + 1));
        Slot& slot = mSlots[id];
        const native_handle_t* const handle = slot.isKnown ? nullptr : slot.frame.memory.handle();
        slot.isKnown = true;
        if (!accepted(mSession->processCaptureRequest(requestFor(number, id, handle))))
            count(false);
        return true;
    }
    void giveBack(uint64_t id) {
        const std::lock_guard<std::mutex> lock(mMutex);
        mFree.push_back(id);
        if (mFree.size() == 1) mChanged.notify_one();
    }
    /** Nothing when something was wrong or no buffer came back. */
    std::optional<uint64_t> takeFree() {
        std::unique_lock<std::mutex> lock(mMutex);
        mChanged.wait_for(lock, kPatience, [&] { return mWrong || !mFree.empty(); });
        if (mWrong || mFree.empty()) return std::nullopt;
        const uint64_t id = mFree.front();
        mFree.pop_front();
        return id;
    }
    uint32_t countOfFree() {
        const std::lock_guard<std::mutex> lock(mMutex);
        return static_cast<uint32_t>(mFree.size());
    }
    /** By every byte of a run's last frame, and by the marks of the others. */
    bool isExpected(const uint8_t* packed, uint32_t frameNumber) {
        return !mExpected || mExpected->isIn(packed, frameNumber, frameNumber + 1 == mWanted);
    }
    void count(bool right) {
        const std::lock_guard<std::mutex> lock(mMutex);
        ++mCame;
        mWrong = mWrong || !right;
        if (mWrong || mCame == mWanted) mChanged.notify_one();
    }

    const sp<IFDSession> mSession;
    const Asking mAsking;
    std::optional<MarkedFrame> mExpected;  // for the thread of the callback
    std::vector<Slot> mSlots;
    std::atomic<uint32_t> mWanted{0};
    std::atomic<uint32_t> mAsked{0};
    std::atomic<Clock::time_point> mLastArrival{{}};

    std::mutex mMutex;
    std::condition_variable mChanged;
    // Guarded by mMutex.
    std::deque<uint64_t> mFree;
    uint32_t mCame = 0;
    bool mWrong = false;
};

RoadClient::RoadClient(sp<Session> session, sp<Receiver> receiver)
    : mSession(std::move(session)), mReceiver(std::move(receiver)) {}

RoadClient::~RoadClient() {
    // A failure is of no interest: the provider may be gone.
    static_cast<void>(mSession->setCallback(nullptr).isOk());
}

std::unique_ptr<RoadClient> RoadClient::connect(const std::string& socket, FrameSize size,
                                                uint32_t buffers, Asking asking, bool pictures,
                                                std::string& problem) {
    const sp<IFDSession> session = host::connect<IFDSession>(socket, problem);
    if (session == nullptr) return nullptr;
    const sp<Receiver> receiver = new Receiver(session, size, buffers, asking, pictures);
    std::unique_ptr<RoadClient> client(new RoadClient(session, receiver));
    if (accepted(session->setCallback(receiver)) && accepted(session->configure(streamOf(size))) &&
        client->run(buffers)) {
        return client;
    }
    problem = "the first frames did not come";
    return nullptr;
}

bool RoadClient::run(uint32_t frames) {
    return mReceiver->run(frames);
}

std::optional<Clock::duration> RoadClient::latencyOfOne(Clock::time_point askAt) {
    std::this_thread::sleep_until(askAt);
    const Clock::time_point start = Clock::now();
    return run(1) ? std::optional(mReceiver->lastArrival() - start) : std::nullopt;
}

}  // namespace bench
