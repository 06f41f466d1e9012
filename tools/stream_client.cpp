#include "stream_client.h"

#include <android/hardware/camera/common/1.0/types.h>
#include <android/hardware/camera/device/3.2/types.h>
#include <android/hardware/graphics/common/1.0/types.h>
#include <err.h>
#include <hidl/Status.h>
#include <vendor/zoru/zoruprovider/fdstream/1.0/IFDSessionCallback.h>

#include <algorithm>
#include <condition_variable>
#include <deque>
#include <mutex>
#include <utility>
#include <vector>

#include "host/buffer.h"

namespace tools {

namespace {

using android::sp;
using android::hardware::hidl_vec;
using android::hardware::Return;
using android::hardware::Void;
using android::hardware::camera::common::V1_0::Status;
using android::hardware::camera::device::V3_2::BufferStatus;
using android::hardware::camera::device::V3_2::CaptureRequest;
using android::hardware::camera::device::V3_2::CaptureResult;
using android::hardware::camera::device::V3_2::Stream;
using android::hardware::camera::device::V3_2::StreamBuffer;
using android::hardware::camera::device::V3_2::StreamConfiguration;
using android::hardware::camera::device::V3_2::StreamType;
using android::hardware::graphics::common::V1_0::BufferUsage;
using android::hardware::graphics::common::V1_0::PixelFormat;
using vendor::zoru::zoruprovider::fdstream::V1_0::FDNotifyMsg;
using vendor::zoru::zoruprovider::fdstream::V1_0::IFDSession;
using vendor::zoru::zoruprovider::fdstream::V1_0::IFDSessionCallback;

constexpr int32_t kStreamId = 0;
constexpr uint32_t kRowStride = 1536;  // wider than a row, so that a forgotten stride shows
constexpr uint64_t kUsage = static_cast<uint64_t>(BufferUsage::CPU_READ_OFTEN) |
                            static_cast<uint64_t>(BufferUsage::CPU_WRITE_OFTEN);
constexpr uint8_t kNotWritten = 0xA5;

/** Looks at both halves of an answer: whether the call arrived, and what it said. */
bool accepted(const Return<Status>& answer) {
    return answer.isOk() && static_cast<Status>(answer) == Status::OK;
}

StreamConfiguration theStream() {
    Stream stream = {};
    stream.id = kStreamId;
    stream.streamType = StreamType::OUTPUT;
    stream.width = kFrameWidth;
    stream.height = kFrameHeight;
    stream.format = PixelFormat::YCBCR_420_888;
    stream.usage = kUsage;
    StreamConfiguration configuration = {};
    configuration.streams = {stream};
    return configuration;
}

std::optional<host::Buffer> allocate() {
    host::BufferSpec spec;
    spec.width = kFrameWidth;
    spec.height = kFrameHeight;
    spec.stride = kRowStride;
    spec.usage = kUsage;
    return host::Buffer::allocate(spec);
}

Frame copyOut(const host::Buffer& buffer) {
    Frame frame;
    frame.reserve(kFrameBytes);
    for (uint32_t row = 0; row < kFrameHeight; ++row)
        frame.insert(frame.end(), buffer.lumaRow(row), buffer.lumaRow(row) + kFrameWidth);
    for (uint32_t row = 0; row < kFrameHeight / 2; ++row)
        frame.insert(frame.end(), buffer.chromaRow(row), buffer.chromaRow(row) + kFrameWidth);
    return frame;
}

}  // namespace

/**
 * The callback. Owns the buffers and all other state that a late call could need. A buffer's id is
 * its place in the list. Results come one at a time.
 */
class StreamClient::Receiver : public IFDSessionCallback {
public:
    Receiver(sp<IFDSession> session, uint32_t frames)
        : mSession(std::move(session)), mFrames(frames) {}

    bool allocateBuffers(uint32_t count);
    /** Asks for the next frame in this buffer, if one is left to ask for. */
    void submit(uint64_t bufferId);
    std::optional<Answer> next(std::chrono::milliseconds patience);
    uint32_t asked() const;

    Return<void> processCaptureResult(const hidl_vec<CaptureResult>& results) override;
    Return<void> notify(const hidl_vec<FDNotifyMsg>& /*msgs*/) override { return Void(); }

private:
    struct Slot {
        explicit Slot(host::Buffer allocated) : buffer(std::move(allocated)) {}

        host::Buffer buffer;
        // Guarded by the receiver's mMutex.
        bool handleSent = false;
        bool underWay = false;
        uint32_t frameNumber = 0;
        Clock::time_point submission;
    };

    std::optional<CaptureRequest> makeRequest(uint64_t bufferId);
    /** Posts the answer that a result is, and gives the id of the buffer that is free again. */
    std::optional<uint64_t> receive(const CaptureResult& result, Clock::time_point arrival);
    void refused(uint64_t bufferId);
    // REQUIRES: mMutex is held.
    /** The buffer that a result gives back; null for a result that answers no request. */
    Slot* slotOf(const CaptureResult& result);
    void postLocked(Answer answer);

    // Constant once the stream has started.
    const sp<IFDSession> mSession;
    const uint32_t mFrames;
    std::vector<Slot> mSlots;

    mutable std::mutex mMutex;
    std::condition_variable mPosted;
    // Guarded by mMutex.
    uint32_t mAsked = 0;
    std::deque<Answer> mAnswers;
};

bool StreamClient::Receiver::allocateBuffers(uint32_t count) {
    while (mSlots.size() < count) {
        std::optional<host::Buffer> buffer = allocate();
        if (!buffer) return false;
        mSlots.emplace_back(std::move(*buffer));
    }
    return true;
}

void StreamClient::Receiver::submit(uint64_t bufferId) {
    // A frame that nobody writes must not look like an older one that was right.
    const host::Buffer& buffer = mSlots[bufferId].buffer;
    std::fill_n(buffer.bytes(), buffer.size(), kNotWritten);

    // The session is called without the lock: it may answer before the call returns.
    const std::optional<CaptureRequest> request = makeRequest(bufferId);
    if (request && !accepted(mSession->processCaptureRequest(*request))) refused(bufferId);
}

std::optional<CaptureRequest> StreamClient::Receiver::makeRequest(uint64_t bufferId) {
    const std::lock_guard<std::mutex> lock(mMutex);
    if (mAsked == mFrames) return std::nullopt;
    Slot& slot = mSlots[bufferId];
    slot.frameNumber = mAsked++;
    slot.underWay = true;

    CaptureRequest request = {};
    request.frameNumber = slot.frameNumber;
    request.inputBuffer.streamId = -1;  // there is none
    request.outputBuffers.resize(1);
    request.outputBuffers[0].streamId = kStreamId;
    request.outputBuffers[0].bufferId = bufferId;
    if (!std::exchange(slot.handleSent, true))
        request.outputBuffers[0].buffer = slot.buffer.handle();
    slot.submission = Clock::now();
    return request;
}

Return<void> StreamClient::Receiver::processCaptureResult(const hidl_vec<CaptureResult>& results) {
    const Clock::time_point arrival = Clock::now();
    for (const CaptureResult& result : results) {
        if (const std::optional<uint64_t> bufferId = receive(result, arrival)) submit(*bufferId);
    }
    return Void();
}

std::optional<uint64_t> StreamClient::Receiver::receive(const CaptureResult& result,
                                                        Clock::time_point arrival) {
    const std::lock_guard<std::mutex> lock(mMutex);
    Slot* const slot = slotOf(result);
    if (slot == nullptr) {
        postLocked({Answer::Outcome::Stray, result.frameNumber, 0, arrival, {}, {}});
        return std::nullopt;
    }
    const StreamBuffer& buffer = result.outputBuffers[0];
    const bool filled = buffer.status == BufferStatus::OK;
    slot->underWay = false;
    postLocked({filled ? Answer::Outcome::Filled : Answer::Outcome::Failed, result.frameNumber,
                buffer.bufferId, arrival, arrival - slot->submission,
                filled ? copyOut(slot->buffer) : Frame()});
    return buffer.bufferId;
}

StreamClient::Receiver::Slot* StreamClient::Receiver::slotOf(const CaptureResult& result) {
    if (result.outputBuffers.size() != 1) return nullptr;
    const StreamBuffer& buffer = result.outputBuffers[0];
    if (buffer.streamId != kStreamId || buffer.bufferId >= mSlots.size()) return nullptr;
    Slot& slot = mSlots[buffer.bufferId];
    return slot.underWay && slot.frameNumber == result.frameNumber ? &slot : nullptr;
}

void StreamClient::Receiver::refused(uint64_t bufferId) {
    const Clock::time_point now = Clock::now();
    const std::lock_guard<std::mutex> lock(mMutex);
    Slot& slot = mSlots[bufferId];
    slot.underWay = false;
    postLocked(
        {Answer::Outcome::Refused, slot.frameNumber, bufferId, now, now - slot.submission, {}});
}

void StreamClient::Receiver::postLocked(Answer answer) {
    mAnswers.push_back(std::move(answer));
    mPosted.notify_one();
}

std::optional<Answer> StreamClient::Receiver::next(std::chrono::milliseconds patience) {
    std::unique_lock<std::mutex> lock(mMutex);
    if (!mPosted.wait_for(lock, patience, [this] { return !mAnswers.empty(); }))
        return std::nullopt;
    Answer answer = std::move(mAnswers.front());
    mAnswers.pop_front();
    return answer;
}

uint32_t StreamClient::Receiver::asked() const {
    const std::lock_guard<std::mutex> lock(mMutex);
    return mAsked;
}

StreamClient::StreamClient(const sp<IFDSession>& session, uint32_t frames)
    : mSession(session), mReceiver(new Receiver(session, frames)) {}

StreamClient::~StreamClient() {
    if (!accepted(mSession->setCallback(nullptr)))
        warnx("the session does not let go of the client");
}

bool StreamClient::start(uint32_t buffers) {
    if (!mReceiver->allocateBuffers(buffers)) {
        warnx("there is no memory for %u buffers", buffers);
        return false;
    }
    if (!accepted(mSession->setCallback(mReceiver)) ||
        !accepted(mSession->configure(theStream()))) {
        warnx("the session does not take the stream");
        return false;
    }
    for (uint32_t bufferId = 0; bufferId < buffers; ++bufferId)
        mReceiver->submit(bufferId);
    return true;
}

std::optional<Answer> StreamClient::next(std::chrono::milliseconds patience) {
    return mReceiver->next(patience);
}

uint32_t StreamClient::asked() const {
    return mReceiver->asked();
}

}  // namespace tools
