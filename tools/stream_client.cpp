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
#include <random>
#include <utility>
#include <vector>

#include "host/buffer.h"

namespace tools {

namespace {

using android::sp;
using android::wp;
using android::hardware::hidl_death_recipient;
using android::hardware::hidl_vec;
using android::hardware::Return;
using android::hardware::Void;
using android::hardware::camera::common::V1_0::Status;
using android::hardware::camera::device::V3_2::BufferStatus;
using android::hardware::camera::device::V3_2::CaptureRequest;
using android::hardware::camera::device::V3_2::CaptureResult;
using android::hardware::camera::device::V3_2::Stream;
using android::hardware::camera::device::V3_2::StreamConfiguration;
using android::hardware::camera::device::V3_2::StreamType;
using android::hardware::graphics::common::V1_0::BufferUsage;
using android::hardware::graphics::common::V1_0::PixelFormat;
using android::hidl::base::V1_0::IBase;
using vendor::zoru::zoruprovider::fdstream::V1_0::FDNotifyMsg;
using vendor::zoru::zoruprovider::fdstream::V1_0::IFDSession;
using vendor::zoru::zoruprovider::fdstream::V1_0::IFDSessionCallback;

constexpr int32_t kStreamId = 0;
constexpr uint32_t kRowPadding = 256;  // so that a forgotten stride shows
constexpr uint64_t kUsage = static_cast<uint64_t>(BufferUsage::CPU_READ_OFTEN) |
                            static_cast<uint64_t>(BufferUsage::CPU_WRITE_OFTEN);
constexpr const char* kDied = "it has ended, or closed the connection";

StreamConfiguration theStream(FrameSize size) {
    Stream stream = {};
    stream.id = kStreamId;
    stream.streamType = StreamType::OUTPUT;
    stream.width = static_cast<uint32_t>(size.width);
    stream.height = static_cast<uint32_t>(size.height);
    stream.format = PixelFormat::YCBCR_420_888;
    stream.usage = kUsage;
    StreamConfiguration configuration = {};
    configuration.streams = {stream};
    return configuration;
}

std::optional<host::Buffer> allocate(FrameSize size) {
    host::BufferGeometry geometry;
    geometry.width = static_cast<uint32_t>(size.width);
    geometry.height = static_cast<uint32_t>(size.height);
    geometry.stride = geometry.width + kRowPadding;
    geometry.usage = kUsage;
    return host::Buffer::allocate(geometry);
}

Frame copyOut(const host::Buffer& buffer) {
    const host::BufferGeometry& geometry = buffer.geometry();
    Frame frame;
    frame.reserve(size_t{geometry.width} * geometry.height / 2 * 3);
    for (uint32_t row = 0; row < geometry.height; ++row)
        frame.insert(frame.end(), buffer.lumaRow(row), buffer.lumaRow(row) + geometry.width);
    for (uint32_t row = 0; row < geometry.height / 2; ++row)
        frame.insert(frame.end(), buffer.chromaRow(row), buffer.chromaRow(row) + geometry.width);
    return frame;
}

Clock::duration periodOf(double perSecond) {
    if (perSecond <= 0) return Clock::duration::zero();
    return std::chrono::duration_cast<Clock::duration>(
        std::chrono::duration<double>(1.0 / perSecond));
}

}  // namespace

/**
 * The callback, and who hears of the provider's death. Owns the buffers and all other state that a
 * late call could need. Results come one at a time.
 */
class StreamClient::Receiver : public IFDSessionCallback, public hidl_death_recipient {
public:
    Receiver(sp<IFDSession> session, const StreamSettings& settings)
        : mSession(std::move(session)),
          mSettings(settings),
          mPeriod(periodOf(settings.requestsPerSecond)),
          mWanted(settings.frames) {}

    bool allocateBuffers();
    /** Asks for a next frame in each buffer, now or when the pace lets it. */
    void begin();
    FrameSize size() const { return mSettings.size; }
    std::optional<Answer> next(std::chrono::milliseconds patience);
    void stopAsking();
    uint32_t asked() const;
    uint32_t wanted() const;
    bool isIdle() const;
    void lose(const std::string& how);
    std::string loss() const;

    Return<void> processCaptureResult(const hidl_vec<CaptureResult>& results) override;
    Return<void> notify(const hidl_vec<FDNotifyMsg>& /*msgs*/) override { return Void(); }
    void serviceDied(uint64_t /*cookie*/, const wp<IBase>& /*who*/) override { lose(kDied); }

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

    /** The buffer is free: asks for the next frame in it, or keeps it for who makes the requests.
     */
    void release(uint32_t index);
    /** A buffer that was kept; from the first time that there is none, none is kept any more. */
    std::optional<uint32_t> takeFree();
    /** Asks for the next frame in this buffer, if one is left to ask for. False when refused. */
    bool submit(uint32_t index);
    std::optional<CaptureRequest> makeRequest(uint32_t index);
    void refused(uint32_t index);
    /** Posts the answer that a result is, and gives the buffer that is free again. */
    std::optional<uint32_t> receive(const CaptureResult& result, Clock::time_point arrival);
    // REQUIRES: mMutex is held.
    /** Whether the result gives this buffer back. */
    bool answers(const CaptureResult& result, uint64_t index) const;
    void postLocked(Answer answer);

    // Constant once the stream has started.
    const sp<IFDSession> mSession;
    const StreamSettings mSettings;
    const Clock::duration mPeriod;
    std::vector<Slot> mSlots;

    mutable std::mutex mMutex;
    std::condition_variable mPosted;
    // Guarded by mMutex.
    uint32_t mWanted;
    uint32_t mAsked = 0;
    uint32_t mUnderWay = 0;
    std::deque<uint32_t> mFree;
    // Free buffers are kept: with a pace always, and else until begin() is done, so that requests
    // are made by one thread at a time and go out in the order of their numbers.
    bool mCollecting = true;
    Clock::time_point mDue;
    std::deque<Answer> mAnswers;
    std::string mLoss;
};

bool StreamClient::Receiver::allocateBuffers() {
    while (mSlots.size() < mSettings.buffers) {
        std::optional<host::Buffer> buffer = allocate(mSettings.size);
        if (!buffer) return false;
        mSlots.emplace_back(std::move(*buffer));
    }
    return true;
}

void StreamClient::Receiver::begin() {
    {
        const std::lock_guard<std::mutex> lock(mMutex);
        mDue = Clock::now();
        for (uint32_t index = 0; index < mSettings.buffers; ++index)
            mFree.push_back(index);
    }
    if (mPeriod != Clock::duration::zero()) return;
    while (const std::optional<uint32_t> index = takeFree()) {
        if (!submit(*index)) release(*index);
    }
}

std::optional<uint32_t> StreamClient::Receiver::takeFree() {
    const std::lock_guard<std::mutex> lock(mMutex);
    if (mFree.empty()) {
        mCollecting = false;
        return std::nullopt;
    }
    const uint32_t index = mFree.front();
    mFree.pop_front();
    return index;
}

void StreamClient::Receiver::release(uint32_t index) {
    {
        const std::lock_guard<std::mutex> lock(mMutex);
        if (mCollecting) {
            mFree.push_back(index);
            mPosted.notify_one();
            return;
        }
    }
    while (!submit(index)) {
    }
}

bool StreamClient::Receiver::submit(uint32_t index) {
    // A frame that nobody writes must not look like an older one that was right.
    const host::Buffer& buffer = mSlots[index].buffer;
    std::fill_n(buffer.bytes(), buffer.size(), kNotWritten);

    // The session is called without the lock: it may answer before the call returns.
    const std::optional<CaptureRequest> request = makeRequest(index);
    if (!request) return true;
    const Return<Status> answer = mSession->processCaptureRequest(*request);
    if (answer.isOk() && static_cast<Status>(answer) == Status::OK) return true;
    // A call can fail on its way for a reason of its own; then the provider is still there.
    if (!answer.isOk() && !mSession->ping().isOk()) {
        lose(answer.description());
        return true;
    }
    refused(index);
    return false;
}

std::optional<CaptureRequest> StreamClient::Receiver::makeRequest(uint32_t index) {
    const std::lock_guard<std::mutex> lock(mMutex);
    if (mAsked >= mWanted || !mLoss.empty()) return std::nullopt;
    Slot& slot = mSlots[index];
    slot.frameNumber = mAsked++;
    slot.underWay = true;
    ++mUnderWay;

    CaptureRequest request = {};
    request.frameNumber = slot.frameNumber;
    request.inputBuffer.streamId = -1;  // there is none
    request.outputBuffers.resize(1);
    request.outputBuffers[0].streamId = kStreamId;
    request.outputBuffers[0].bufferId = mSettings.firstBufferId + index;
    if (!std::exchange(slot.handleSent, true))
        request.outputBuffers[0].buffer = slot.buffer.handle();
    slot.submission = Clock::now();
    return request;
}

void StreamClient::Receiver::refused(uint32_t index) {
    const Clock::time_point now = Clock::now();
    const std::lock_guard<std::mutex> lock(mMutex);
    Slot& slot = mSlots[index];
    slot.handleSent = false;  // nobody has kept it
    slot.underWay = false;
    --mUnderWay;
    postLocked({Answer::Outcome::Refused, slot.frameNumber, index, now, now - slot.submission, {}});
}

Return<void> StreamClient::Receiver::processCaptureResult(const hidl_vec<CaptureResult>& results) {
    const Clock::time_point arrival = Clock::now();
    for (const CaptureResult& result : results) {
        if (const std::optional<uint32_t> index = receive(result, arrival)) release(*index);
    }
    return Void();
}

std::optional<uint32_t> StreamClient::Receiver::receive(const CaptureResult& result,
                                                        Clock::time_point arrival) {
    const std::lock_guard<std::mutex> lock(mMutex);
    if (result.outputBuffers.size() != 1) {
        postLocked({Answer::Outcome::Stray, result.frameNumber, 0, arrival, {}, {}});
        return std::nullopt;
    }
    const bool filled = result.outputBuffers[0].status == BufferStatus::OK;
    const uint64_t index = result.outputBuffers[0].bufferId - mSettings.firstBufferId;
    if (index >= mSlots.size()) {
        postLocked({filled ? Answer::Outcome::ForeignPicture : Answer::Outcome::ForeignError,
                    result.frameNumber,
                    0,
                    arrival,
                    {},
                    {}});
        return std::nullopt;
    }
    if (!answers(result, index)) {
        postLocked({Answer::Outcome::Stray, result.frameNumber, 0, arrival, {}, {}});
        return std::nullopt;
    }
    Slot& slot = mSlots[index];
    const auto place = static_cast<uint32_t>(index);
    slot.underWay = false;
    --mUnderWay;
    postLocked({filled ? Answer::Outcome::Filled : Answer::Outcome::Failed, result.frameNumber,
                place, arrival, arrival - slot.submission,
                filled ? copyOut(slot.buffer) : Frame()});
    return place;
}

bool StreamClient::Receiver::answers(const CaptureResult& result, uint64_t index) const {
    const Slot& slot = mSlots[index];
    return slot.underWay && slot.frameNumber == result.frameNumber &&
           result.outputBuffers[0].streamId == kStreamId;
}

void StreamClient::Receiver::postLocked(Answer answer) {
    mAnswers.push_back(std::move(answer));
    mPosted.notify_one();
}

std::optional<Answer> StreamClient::Receiver::next(std::chrono::milliseconds patience) {
    const Clock::time_point deadline = Clock::now() + patience;
    std::unique_lock<std::mutex> lock(mMutex);
    while (mAnswers.empty()) {
        const Clock::time_point now = Clock::now();
        if (!mLoss.empty() || now >= deadline) return std::nullopt;
        Clock::time_point wake = deadline;
        if (!mFree.empty() && mAsked < mWanted) {
            if (mDue <= now) {
                const uint32_t index = mFree.front();
                mFree.pop_front();
                mDue = std::max(mDue + mPeriod, now);
                lock.unlock();
                if (!submit(index)) release(index);
                lock.lock();
                continue;
            }
            wake = std::min(wake, mDue);
        }
        mPosted.wait_for(lock, wake - now);
    }
    Answer answer = std::move(mAnswers.front());
    mAnswers.pop_front();
    return answer;
}

void StreamClient::Receiver::stopAsking() {
    const std::lock_guard<std::mutex> lock(mMutex);
    mWanted = mAsked;
}

uint32_t StreamClient::Receiver::asked() const {
    const std::lock_guard<std::mutex> lock(mMutex);
    return mAsked;
}

uint32_t StreamClient::Receiver::wanted() const {
    const std::lock_guard<std::mutex> lock(mMutex);
    return mWanted;
}

bool StreamClient::Receiver::isIdle() const {
    const std::lock_guard<std::mutex> lock(mMutex);
    return mUnderWay == 0;
}

void StreamClient::Receiver::lose(const std::string& how) {
    const std::lock_guard<std::mutex> lock(mMutex);
    if (mLoss.empty() || mLoss == kDied) mLoss = how;  // what a call failed with says more
    mPosted.notify_one();
}

std::string StreamClient::Receiver::loss() const {
    const std::lock_guard<std::mutex> lock(mMutex);
    return mLoss;
}

uint64_t freshBufferIds() {
    std::random_device random;
    return uint64_t{random()} << 32 | random();
}

StreamClient::StreamClient(const sp<IFDSession>& session, const StreamSettings& settings)
    : mSession(session), mReceiver(new Receiver(session, settings)) {}

StreamClient::~StreamClient() {
    // Also breaks the circle of receiver, session and death notice.
    const Return<bool> unlinked = mSession->unlinkToDeath(mReceiver);
    if (!unlinked.isOk() || !mReceiver->loss().empty()) return;
    const Return<Status> answer = mSession->setCallback(nullptr);
    if (!answer.isOk())
        warnx("the callback cannot be taken back: %s", answer.description().c_str());
}

bool StreamClient::takes(const Return<Status>& answer, std::string& problem) {
    if (answer.isOk() && static_cast<Status>(answer) == Status::OK) return true;
    if (answer.isOk()) {
        problem = "the session does not take the stream";
    } else if (mSession->ping().isOk()) {
        problem = "the stream cannot be set up: " + answer.description();
    } else {
        mReceiver->lose(answer.description());
    }
    return false;
}

bool StreamClient::start(std::string& problem) {
    if (!mReceiver->allocateBuffers()) {
        problem = "there is no memory for the buffers";
        return false;
    }
    const Return<bool> linked = mSession->linkToDeath(mReceiver, 0);
    if (!linked.isOk() || !static_cast<bool>(linked)) {
        mReceiver->lose(linked.isOk() ? kDied : linked.description());
        return false;
    }
    if (!takes(mSession->setCallback(mReceiver), problem) ||
        !takes(mSession->configure(theStream(mReceiver->size())), problem)) {
        return false;
    }
    mReceiver->begin();
    return true;
}

std::optional<Answer> StreamClient::next(std::chrono::milliseconds patience) {
    return mReceiver->next(patience);
}

void StreamClient::stopAsking() {
    mReceiver->stopAsking();
}

uint32_t StreamClient::asked() const {
    return mReceiver->asked();
}

uint32_t StreamClient::wanted() const {
    return mReceiver->wanted();
}

bool StreamClient::isIdle() const {
    return mReceiver->isIdle();
}

std::string StreamClient::loss() const {
    return mReceiver->loss();
}

}  // namespace tools
