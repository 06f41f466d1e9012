#include "source/filler.h"

#include <cutils/properties.h>
#include <hardware/gralloc.h>
#include <poll.h>

#include <algorithm>
#include <utility>

#include "view/announcements.h"
#include "view/crop_rule.h"

namespace camera {

namespace {

using android::GraphicBuffer;
using android::sp;
using vendor::zoru::zoruprovider::fdstream::V1_0::FDNotifyType;
using vendor::zoru::zoruprovider::fdstream::V1_0::implementation::answerTo;
using vendor::zoru::zoruprovider::zoruprovider::V2_4::SceneControl;
using Clock = StopSignal::Clock;

constexpr size_t kMostKept = 32;
// For requests.
constexpr std::chrono::microseconds kBetweenLooks(5000);
// Without a pace nothing else may be waited for: then at first for a short time, and each time for
// twice that, because a look costs as much as much else of a frame.
constexpr std::chrono::microseconds kShortest(500);
constexpr std::chrono::microseconds kLongest(8000);
constexpr std::chrono::milliseconds kForAFence(50);
constexpr FrameSize kLargest = {4096, 2304};

}  // namespace

Filler::Filler(sp<Session> session, Handover& handover, const StopSignal& stop, bool isPaced,
               Say say)
    : mSession(std::move(session)),
      mHandover(handover),
      mStop(stop),
      mIsPaced(isPaced),
      mSay(std::move(say)) {}

void Filler::clientWent() {
    mHasClient = false;
    ++mDepartures;
}

void Filler::run() {
    std::chrono::microseconds patience = kShortest / 2;
    for (;;) {
        collect();
        const bool isForRequests = !mIsPaced && mKept.empty();
        patience = isForRequests ? std::min(2 * patience, kLongest) : kShortest / 2;
        if (!mIsPaced) mHandover.want(!mKept.empty());
        const Handover::News news = mHandover.take(isForRequests ? patience : kBetweenLooks);
        if (news.isEnd) break;
        if (news.frame) {
            collect();
            present(*news.frame);
        }
        if (news.isBroken) {
            tellBreakdown(news);
            answerAtPace(news);
        }
    }
    answerKept();
}

/** Takes what has come, each with the buffer that the session has for it now. */
void Filler::collect() {
    // Before each look, so that the next client's requests are not taken for those of who has gone.
    if (const uint64_t departures = mDepartures; departures != mSeenDepartures) {
        mSeenDepartures = departures;
        answerKept();
    }
    while (mKept.size() < kMostKept && mSession->isCaptureRequestReady()) {
        CaptureRequest request = {};
        if (mSession->getProcessCaptureRequest(request) != 0) return;
        sp<GraphicBuffer> buffer = mSession->getBufferForId(request.outputBuffers[0].bufferId);
        Kept kept = {std::move(request), std::move(buffer)};
        if (kept.buffer != nullptr) {
            mKept.push_back(std::move(kept));
        } else {
            answer(std::move(kept), BufferStatus::ERROR);
        }
    }
}

void Filler::answerKept() {
    for (Kept& kept : mKept)
        answer(std::move(kept), BufferStatus::ERROR);
    mKept.clear();
}

bool Filler::isCurrent(const Kept& kept) const {
    const uint64_t id = kept.request.outputBuffers[0].bufferId;
    return mSession->getBufferForId(id) == kept.buffer;
}

/** Whether the client is done with its buffer, or is so soon. */
bool Filler::isFree(const Kept& kept) const {
    const native_handle_t* const fence =
        kept.request.outputBuffers[0].acquireFence.getNativeHandle();
    if (fence == nullptr || fence->numFds == 0) return true;
    return mStop.waitToRead(fence->data[0], Clock::now() + kForAFence) == StopSignal::Woken::READY;
}

/** Fills the oldest request that can be filled; those before it are answered with errors. */
void Filler::present(const DueFrame& frame) {
    while (!mKept.empty()) {
        Kept kept = std::move(mKept.front());
        mKept.pop_front();
        Rect view;
        const bool wasCurrent = isCurrent(kept);
        if (wasCurrent && fill(frame, kept, view) && isCurrent(kept)) {
            announce(frame, kept.request.frameNumber, view);
            return answer(std::move(kept), BufferStatus::OK);
        }
        answer(std::move(kept), BufferStatus::ERROR);
        if (wasCurrent) return;  // the frame was meant for it
    }
    mHandover.countDropped();
}

bool Filler::fill(const DueFrame& frame, const Kept& kept, Rect& view) {
    GraphicBuffer& buffer = *kept.buffer;
    if (buffer.initCheck() != 0 || !isFree(kept)) return false;
    const FrameSize size = {buffer.width, buffer.height};
    if (size.width > kLargest.width || size.height > kLargest.height) {
        sayOnce(size, "frames of " + std::to_string(size.width) + "x" +
                          std::to_string(size.height) + " are larger than 4096x2304");
        return false;
    }
    return draw(frame, buffer, view);
}

bool Filler::draw(const DueFrame& frame, GraphicBuffer& buffer, Rect& view) {
    android_ycbcr locked = {};
    if (buffer.lockYCbCr(GRALLOC_USAGE_SW_WRITE_OFTEN, &locked) != 0) return false;
    const Planes planes = planesOf(locked, {buffer.width, buffer.height});
    view = viewOf(frame.shape, planes.size);
    const bool isHandled = planes.chromaStep == 1 || planes.chromaStep == 2;
    const bool isDrawn = isHandled && mScaler.scale(*frame.frame, frame.shape, view, planes);
    buffer.unlock();
    if (!isDrawn) sayOnce(planes.size, "its pictures cannot be scaled into the client's buffers");
    return isDrawn;
}

Rect Filler::viewOf(const PictureShape& shape, FrameSize stream) const {
    SceneControl ptz = {};
    mSession->getPTZControl(ptz);
    Rect wanted;
    FrameSize of = {0, 0};  // the whole picture
    if (ptz.crops.size() > 0) {
        wanted = {ptz.crops[0].x, ptz.crops[0].y, ptz.crops[0].width, ptz.crops[0].height};
        of = {ptz.frameWidth, ptz.frameHeight};
    }
    return viewFor(wanted, of, shape.picture(), stream);
}

void Filler::announce(const DueFrame& frame, uint32_t number, const Rect& view) {
    const bool isTurned = property_get_bool("vendor.zoru.flipped", 0) != 0;
    tell(shutterOf(number, static_cast<uint64_t>(frame.dueNs)));
    tell(camera::viewOf(number, view));
    tell(pictureOf(number, {frame.shape.picture(), isTurned}));
}

void Filler::tell(Message message) {
    if (mHasClient) mSession->sendNotify(message);
}

void Filler::tellBreakdown(const Handover::News& news) {
    if (mSaidBreakdowns != news.breakdowns) {
        mSaidBreakdowns = news.breakdowns;
        mNextError = Clock::now() + std::chrono::nanoseconds(news.periodNs);
        mSay(news.reason);
    }
    if (!mHasClient || mToldBreakdowns == news.breakdowns) return;
    mToldBreakdowns = news.breakdowns;
    tell({FDNotifyType::ERROR, 0, 0});
}

/** One request for each frame that there is not. */
void Filler::answerAtPace(const Handover::News& news) {
    const Clock::time_point now = Clock::now();
    if (now < mNextError) return;
    mNextError += std::chrono::nanoseconds(news.periodNs);
    if (mNextError < now) mNextError = now;
    if (mKept.empty()) return;
    Kept kept = std::move(mKept.front());
    mKept.pop_front();
    answer(std::move(kept), BufferStatus::ERROR);
}

void Filler::answer(Kept&& kept, BufferStatus status) {
    mSession->sendCaptureResult(answerTo(std::move(kept.request), status));
}

void Filler::sayOnce(FrameSize size, const std::string& line) {
    if (mComplainedOf.width == size.width && mComplainedOf.height == size.height) return;
    mComplainedOf = size;
    mSay(line);
}

}  // namespace camera
