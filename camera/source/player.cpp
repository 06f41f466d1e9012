#include "source/player.h"

#include <utility>

namespace camera {

namespace {

using Clock = StopSignal::Clock;

constexpr std::chrono::seconds kBetweenTries(1);
constexpr int64_t kStillPeriodNs = 40'000'000;

int64_t nowNs() {
    return std::chrono::nanoseconds(Clock::now().time_since_epoch()).count();
}

std::optional<int64_t> fixedPeriod(const SourceOptions& options) {
    if (!options.fps || *options.fps <= 0) return std::nullopt;
    return static_cast<int64_t>(1e9 / *options.fps);
}

}  // namespace

Player::Player(SourceOptions options, Handover& handover, const StopSignal& stop)
    : mOptions(std::move(options)),
      mHandover(handover),
      mStop(stop),
      mPace(fixedPeriod(mOptions)) {}

std::unique_ptr<Media> Player::openMedia(std::string& problem) {
    std::unique_ptr<Media> media = Media::open(
        mOptions, mStop, [this] { fail("nothing came for 2 s"); }, problem);
    if (media != nullptr) mHandover.setRate(media->rate());
    mFramesOfPass = 0;
    return media;
}

bool Player::open(std::string& problem) {
    mMedia = openMedia(problem);
    if (mMedia != nullptr) mDescription = mMedia->description();
    return mMedia != nullptr;
}

std::string Player::description() const {
    return mDescription;
}

void Player::run() {
    while (!mStop.isRaised()) {
        if (mMedia != nullptr) {
            playOn();
        } else if (!mIsOver && mStop.sleepUntil(mNextTry)) {
            tryAgain();
        } else {
            mStop.sleepUntil(Clock::time_point::max());
        }
    }
}

void Player::playOn() {
    if (!isPaced() && !mHandover.waitUntilWanted()) return;
    MediaFrame frame;
    std::string problem;
    switch (mMedia->next(frame, problem)) {
        case Media::Read::FRAME:
            return present(std::move(frame));
        case Media::Read::END:
            return atEnd();
        case Media::Read::BROKEN:
            mNextTry = Clock::now() + kBetweenTries;
            fail(problem);
            mMedia.reset();
            return;
        case Media::Read::STOPPED:
            return;
    }
}

void Player::present(MediaFrame&& frame) {
    if (mFramesOfPass == 0 && mFirstStampNs && frame.stampNs != *mFirstStampNs && mCanRewind &&
        !mMedia->isStream() && !mMedia->isLive()) {
        // It was rewound to somewhere else: from now on it is opened anew.
        mCanRewind = false;
        return atEnd();
    }
    if (mFramesOfPass++ == 0 && !mFirstStampNs) mFirstStampNs = frame.stampNs;
    int64_t due = nowNs();
    if (isPaced() && (!mMedia->isLive() || mOptions.fps)) {
        due = mPace.dueOf(frame.stampNs, frame.periodNs, due);
        if (!mStop.sleepUntil(Clock::time_point(std::chrono::nanoseconds(due)))) return;
    }
    if (mFramesOfPass == 1) mLast.reset(av_frame_clone(frame.frame.get()));
    if (mFramesOfPass == 2) mLast.reset();
    const PictureShape shape = shapeOf(*frame.frame, mMedia->stream());
    mHandover.put({std::move(frame.frame), shape, due});
}

/** A file begins again, without a gap: the next frame is due a period after the last. */
void Player::atEnd() {
    const bool isStill =
        mFramesOfPass == 1 && mLast != nullptr && (mMedia->isPicture() || !mMedia->isStream());
    if (mOptions.once || (mMedia->isStream() && !isStill)) {
        mIsOver = mOptions.once || !mMedia->canBeOpenedAnew();
        mNextTry = Clock::now() + kBetweenTries;
        fail("it is over");
        mMedia.reset();
        return;
    }
    if (isStill) return repeat();
    mPace.beginAgain();
    mFramesOfPass = 0;
    if (mCanRewind && mMedia->rewind()) return;
    mCanRewind = false;
    mMedia.reset();
    tryAgain();
}

/** A still picture is a source of 25 frames a second. */
void Player::repeat() {
    const PictureShape shape = shapeOf(*mLast, mMedia->stream());
    mHandover.setRate(mOptions.fps && *mOptions.fps > 0 ? *mOptions.fps : 25);
    for (;;) {
        int64_t due = nowNs();
        if (isPaced()) {
            due = mPace.dueOf(INT64_MIN, kStillPeriodNs, due);
            if (!mStop.sleepUntil(Clock::time_point(std::chrono::nanoseconds(due)))) return;
        } else if (!mHandover.waitUntilWanted()) {
            return;
        }
        FramePtr frame(av_frame_clone(mLast.get()));
        if (frame != nullptr) mHandover.put({std::move(frame), shape, due});
    }
}

void Player::fail(const std::string& reason) {
    mHandover.breakDown(reason);
}

void Player::tryAgain() {
    mNextTry = Clock::now() + kBetweenTries;
    std::string problem;
    mMedia = openMedia(problem);
    if (mMedia == nullptr) fail(problem);
}

}  // namespace camera
