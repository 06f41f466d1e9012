#include "road_client.h"

#include <vendor/zoru/zoruprovider/fdstream/1.0/IFDSessionCallback.h>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <mutex>
#include <utility>
#include <vector>

#include "host/channel.h"
#include "records.h"
#include "road_provider.h"

namespace bench {

namespace {

using android::hardware::hidl_vec;
using android::hardware::camera::device::V3_2::BufferStatus;
using vendor::zoru::zoruprovider::fdstream::V1_0::FDNotifyMsg;
using vendor::zoru::zoruprovider::fdstream::V1_0::IFDSession;
using vendor::zoru::zoruprovider::fdstream::V1_0::IFDSessionCallback;

constexpr std::chrono::seconds kPatience(20);

bool accepted(const Return<Status>& answer) {
    return answer.isOk() && static_cast<Status>(answer) == Status::OK;
}

bool hasMark(const FrameBuffer& frame, uint32_t frameNumber) {
    const auto rows = static_cast<uint32_t>(frame.height()) / 2;
    return isMarked(frame.luma(), frame.memory.chromaRow(rows - 1) + frame.width(), frameNumber);
}

}  // namespace

/** The callback. Owns the buffers, which a late call could need. */
class RoadClient::Receiver : public IFDSessionCallback {
public:
    Receiver(sp<IFDSession> session, FrameSize size, uint32_t buffers, bool pictures)
        : mSession(std::move(session)), mPictures(pictures) {
        while (mSlots.size() < buffers)
            mSlots.push_back({FrameBuffer(size, size.width)});
    }

    bool run(uint32_t frames) {
        const uint32_t first = mAsked;
        mWanted = first + frames;
        for (uint64_t id = 0; id < mSlots.size(); ++id)
            ask(id);
        std::unique_lock<std::mutex> lock(mMutex);
        mChanged.wait_for(lock, kPatience, [&] { return mWrong || mCame == first + frames; });
        return !mWrong && mCame == first + frames;
    }

    Return<void> processCaptureResult(const hidl_vec<CaptureResult>& results) override {
        const CaptureResult& result = results[0];
        const StreamBuffer& buffer = result.outputBuffers[0];
        const bool right =
            buffer.status == BufferStatus::OK && buffer.bufferId < mSlots.size() &&
            (!mPictures || hasMark(mSlots[buffer.bufferId].frame, result.frameNumber));
        if (right) ask(buffer.bufferId);
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

    void ask(uint64_t id) {
        uint32_t number = mAsked;
        do {
            if (number == mWanted) return;
        } while (!mAsked.compare_exchange_weak(number, number + 1));
        Slot& slot = mSlots[id];
        const native_handle_t* const handle = slot.isKnown ? nullptr : slot.frame.memory.handle();
        slot.isKnown = true;
        if (!accepted(mSession->processCaptureRequest(requestFor(number, id, handle))))
            count(false);
    }
    void count(bool right) {
        const std::lock_guard<std::mutex> lock(mMutex);
        ++mCame;
        mWrong = mWrong || !right;
        if (mWrong || mCame == mWanted) mChanged.notify_one();
    }

    const sp<IFDSession> mSession;
    const bool mPictures;
    std::vector<Slot> mSlots;
    std::atomic<uint32_t> mWanted{0};
    std::atomic<uint32_t> mAsked{0};

    std::mutex mMutex;
    std::condition_variable mChanged;
    // Guarded by mMutex.
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
                                                uint32_t buffers, bool pictures,
                                                std::string& problem) {
    const sp<IFDSession> session = host::connect<IFDSession>(socket, problem);
    if (session == nullptr) return nullptr;
    const sp<Receiver> receiver = new Receiver(session, size, buffers, pictures);
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

}  // namespace bench
