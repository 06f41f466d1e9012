#include "stream_receiver.h"

#include <android/hardware/camera/common/1.0/types.h>

#include <algorithm>
#include <random>
#include <utility>

#include "frame.h"
#include "host/accepted.h"
#include "host/limits.h"
#include "records.h"
#include "whole_frame.h"

namespace tools {

namespace {

using android::sp;
using android::wp;
using android::hardware::hidl_vec;
using android::hardware::camera::common::V1_0::Status;
using android::hardware::camera::device::V3_2::BufferStatus;
using android::hardware::camera::device::V3_2::StreamConfiguration;
using android::hidl::base::V1_0::IBase;
using vendor::zoru::zoruprovider::fdstream::V1_0::FDNotifyMsg;

constexpr int32_t kStreamId = 0;
constexpr uint32_t kRowPadding = 256;  // so that a forgotten stride shows
constexpr const char* kDied = "it has ended, or closed the connection";
/** Of answers that nobody has looked at yet, with pictures and without. */
constexpr size_t kMostPictures = 32;
constexpr size_t kMostUnread = 4096;

std::optional<host::Buffer> makeBuffer(kit::FrameSize size) {
    host::BufferGeometry geometry;
    geometry.width = static_cast<uint32_t>(size.width);
    geometry.height = static_cast<uint32_t>(size.height);
    geometry.stride = static_cast<uint32_t>(chromaBytes(size)) + kRowPadding;
    return host::Buffer::allocate(geometry);
}

/** The first of many buffer ids that no earlier client used: random, out of 2 to the 64th. */
uint64_t freshBufferIds() {
    std::random_device random;
    return uint64_t{random()} << 32 | random();
}

Clock::duration periodOf(double perSecond) {
    if (perSecond <= 0) return Clock::duration::zero();
    return std::chrono::duration_cast<Clock::duration>(
        std::chrono::duration<double>(1.0 / perSecond));
}

}  // namespace

StreamReceiver::StreamReceiver(sp<IFDSession> session, const StreamSettings& settings)
    : mSession(std::move(session)),
      mSettings(settings),
      mPeriod(periodOf(settings.requestsPerSecond)),
      mFirstBufferId(freshBufferIds()),
      mWanted(settings.frames),
      mAsked(settings.firstFrame) {}

StreamConfiguration StreamReceiver::configuration() const {
    return kit::configurationOf(mSettings.size, kStreamId);
}

bool StreamReceiver::allocateBuffers() {
    while (mSlots.size() < mSettings.buffers) {
        std::optional<host::Buffer> buffer = makeBuffer(mSettings.size);
        if (!buffer) return false;
        mSlots.emplace_back(std::move(*buffer));
    }
    return true;
}

void StreamReceiver::begin() {
    {
        const std::lock_guard<std::mutex> lock(mMutex);
        mDue = Clock::now();
        for (uint32_t index = 0; index < mSettings.buffers; ++index)
            mFree.push_back(index);
    }
    if (isPaced()) return;
    while (askForOne()) {
    }
}

bool StreamReceiver::askForOne() {
    const std::optional<uint32_t> index = takeFree();
    if (index && !submit(*index)) release(*index);
    return index.has_value();
}

std::optional<uint32_t> StreamReceiver::takeFree() {
    const std::lock_guard<std::mutex> lock(mMutex);
    if (isFarBehind()) return std::nullopt;
    if (mFree.empty()) {
        mCollecting = isPaced();
        return std::nullopt;
    }
    const uint32_t index = mFree.front();
    mFree.pop_front();
    mDue = std::max(mDue + mPeriod, Clock::now());
    return index;
}

bool StreamReceiver::isFarBehind() const {
    return mAnswers.size() >= (mSettings.lends ? kMostUnread : kMostPictures);
}

void StreamReceiver::release(uint32_t index) {
    {
        const std::lock_guard<std::mutex> lock(mMutex);
        mCollecting |= isFarBehind();
        if (mCollecting) {
            mFree.push_back(index);
            mPosted.notify_one();
            return;
        }
    }
    while (!submit(index)) {
    }
}

bool StreamReceiver::submit(uint32_t index) {
    // A frame that nobody writes must not look like an older one that was right.
    const host::Buffer& buffer = mSlots[index].buffer;
    std::fill_n(buffer.bytes(), buffer.size(), kNotWritten);

    const std::lock_guard<std::mutex> inOrder(mAsking);
    // The session is called without the other lock: it may answer before the call returns.
    const std::optional<CaptureRequest> request = makeRequest(index);
    if (!request) return true;
    const Return<Status> answer = mSession->processCaptureRequest(*request);
    if (host::isAccepted(answer)) return true;
    // A call can fail on its way for a reason of its own; then the provider is still there.
    if (!answer.isOk() && !mSession->ping().isOk()) {
        lose(answer.description());
        return true;
    }
    refused(index);
    return false;
}

std::optional<StreamReceiver::CaptureRequest> StreamReceiver::makeRequest(uint32_t index) {
    const std::lock_guard<std::mutex> lock(mMutex);
    if (mAsked >= mWanted || mLoss != Loss::None) return std::nullopt;
    Slot& slot = mSlots[index];
    slot.frameNumber = mSettings.numbersFrom + mAsked++;
    slot.underWay = true;
    ++mUnderWay;
    const bool isKnown = std::exchange(slot.handleSent, true);
    slot.submission = Clock::now();
    slot.told = {};
    return kit::requestFor(slot.frameNumber, mFirstBufferId + index,
                           isKnown ? nullptr : slot.buffer.handle(), kStreamId);
}

void StreamReceiver::refused(uint32_t index) {
    const Clock::time_point now = Clock::now();
    const std::lock_guard<std::mutex> lock(mMutex);
    Slot& slot = mSlots[index];
    slot.handleSent = false;  // nobody has kept it
    slot.underWay = false;
    --mUnderWay;
    postLocked(
        {Answer::Outcome::Refused, slot.frameNumber, index, now, now - slot.submission, {}, {}});
}

StreamReceiver::Return<void> StreamReceiver::processCaptureResult(
    const hidl_vec<CaptureResult>& results) {
    const Clock::time_point arrival = Clock::now();
    for (const CaptureResult& result : results) {
        for (const uint32_t index : receive(result, arrival))
            release(index);
    }
    return {};
}

StreamReceiver::Return<void> StreamReceiver::notify(const hidl_vec<FDNotifyMsg>& msgs) {
    const std::lock_guard<std::mutex> lock(mMutex);
    for (const FDNotifyMsg& msg : msgs) {
        for (Slot& slot : mSlots) {
            if (slot.underWay && slot.frameNumber == msg.frameNumber) slot.told.take(msg);
        }
    }
    return {};
}

StreamReceiver::Places StreamReceiver::receive(const CaptureResult& result,
                                               Clock::time_point arrival) {
    const std::lock_guard<std::mutex> lock(mMutex);
    if (result.outputBuffers.size() != 1) {
        postLocked({Answer::Outcome::Stray, result.frameNumber, 0, arrival, {}, {}, {}});
        return {};
    }
    const bool filled = result.outputBuffers[0].status == BufferStatus::OK;
    const uint64_t index = result.outputBuffers[0].bufferId - mFirstBufferId;
    if (index >= mSlots.size()) {
        postLocked({filled ? Answer::Outcome::ForeignPicture : Answer::Outcome::ForeignError,
                    result.frameNumber,
                    0,
                    arrival,
                    {},
                    {},
                    {}});
        return {};
    }
    if (!answers(result, index)) {
        postLocked({Answer::Outcome::Stray, result.frameNumber, 0, arrival, {}, {}, {}});
        return {};
    }
    Slot& slot = mSlots[index];
    const auto place = static_cast<uint32_t>(index);
    slot.underWay = false;
    --mUnderWay;
    Answer answer = {filled ? Answer::Outcome::Filled : Answer::Outcome::Failed,
                     result.frameNumber,
                     place,
                     arrival,
                     arrival - slot.submission,
                     {},
                     slot.told};
    Places free = {place};
    if (filled && mSettings.lends) {
        free = lendLocked(answer);
    } else if (filled) {
        answer.frame = mSettings.copy(slot.buffer);
    }
    postLocked(std::move(answer));
    return free;
}

StreamReceiver::Places StreamReceiver::lendLocked(Answer& answer) {
    Places free;
    for (Answer& unread : mAnswers) {
        if (unread.outcome != Answer::Outcome::Filled) continue;
        unread.outcome = Answer::Outcome::Skipped;
        unread.lent = nullptr;
        free.push_back(unread.buffer);
    }
    answer.lent = &mSlots[answer.buffer].buffer;
    return free;
}

bool StreamReceiver::answers(const CaptureResult& result, uint64_t index) const {
    const Slot& slot = mSlots[index];
    return slot.underWay && slot.frameNumber == result.frameNumber &&
           result.outputBuffers[0].streamId == kStreamId;
}

void StreamReceiver::postLocked(Answer answer) {
    mAnswers.push_back(std::move(answer));
    mPosted.notify_one();
}

std::optional<Answer> StreamReceiver::next(std::chrono::milliseconds patience) {
    const Clock::time_point deadline = Clock::now() + patience;
    std::unique_lock<std::mutex> lock(mMutex);
    while (mAnswers.empty()) {
        const Clock::time_point now = Clock::now();
        if (mLoss != Loss::None || now >= deadline) return std::nullopt;
        if (!mFree.empty() && mAsked < mWanted && mDue <= now) {
            lock.unlock();
            askForOne();
            lock.lock();
            continue;
        }
        mCollecting &= isPaced() || !mFree.empty();
        const bool isDueNext = !mFree.empty() && mAsked < mWanted;
        const Clock::time_point wake = isDueNext ? std::min(deadline, mDue) : deadline;
        mPosted.wait_for(lock, wake - now);
    }
    Answer answer = std::move(mAnswers.front());
    mAnswers.pop_front();
    return answer;
}

void StreamReceiver::stopAsking() {
    const std::lock_guard<std::mutex> lock(mMutex);
    mWanted = mAsked;
}

uint32_t StreamReceiver::asked() const {
    const std::lock_guard<std::mutex> lock(mMutex);
    return mAsked;
}

uint32_t StreamReceiver::wanted() const {
    const std::lock_guard<std::mutex> lock(mMutex);
    return mWanted;
}

bool StreamReceiver::isIdle() const {
    const std::lock_guard<std::mutex> lock(mMutex);
    return mUnderWay == 0;
}

void StreamReceiver::serviceDied(uint64_t /*cookie*/, const wp<IBase>& /*who*/) {
    lose(kDied);
}

void StreamReceiver::lose(const std::string& how) {
    const std::lock_guard<std::mutex> lock(mMutex);
    loseLocked(Loss::Gone, how);
}

void StreamReceiver::loseLocked(Loss loss, const std::string& how) {
    // What a call failed with says more.
    if (mLoss == Loss::None || mLossInWords == kDied) {
        mLoss = loss;
        mLossInWords = how;
    }
    mPosted.notify_all();
}

Loss StreamReceiver::loss() const {
    const std::lock_guard<std::mutex> lock(mMutex);
    return mAnswers.empty() ? mLoss : Loss::None;
}

std::string StreamReceiver::lossInWords() const {
    const std::lock_guard<std::mutex> lock(mMutex);
    return mLossInWords;
}

void StreamReceiver::handedOver() {
    const std::lock_guard<std::mutex> lock(mMutex);
    if (mHeld == Held::NotYet) mHeld = Held::BySession;
}

void StreamReceiver::letGo(host::ServedEnd end) {
    const bool alive = mSession->ping().isOk();
    const std::lock_guard<std::mutex> lock(mMutex);
    mHeld = Held::NoMore;
    if (mLeaving) {
        mPosted.notify_all();
    } else if (!alive) {
        loseLocked(Loss::Gone, kDied);
    } else if (end == host::ServedEnd::GIVEN_UP) {
        loseLocked(Loss::GivenUp, "the provider has given this client up, which did not answer it");
    } else {
        loseLocked(Loss::TakenOver, "another client has taken the session over");
    }
}

bool StreamReceiver::leave() {
    const std::lock_guard<std::mutex> lock(mMutex);
    mLeaving = true;
    return mHeld == Held::BySession && mLoss == Loss::None;
}

void StreamReceiver::waitUntilLetGo() {
    std::unique_lock<std::mutex> lock(mMutex);
    mPosted.wait_for(lock, host::kCallPatience, [this] { return mHeld == Held::NoMore; });
}

}  // namespace tools
