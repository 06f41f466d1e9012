#include "source/media.h"

#include <utility>

namespace camera {

namespace {

using Clock = StopSignal::Clock;

constexpr std::chrono::milliseconds kBetweenLooks(5);  // at a device that has no picture yet
constexpr int64_t kSecondNs = 1'000'000'000;

}  // namespace

std::string inWords(int error) {
    if (error == AVERROR_INVALIDDATA) return "it is no video that FFmpeg knows, or damaged";
    if (error == AVERROR_EOF) return "it is at its end already";
    char text[AV_ERROR_MAX_STRING_SIZE] = {};
    av_strerror(error, text, sizeof(text));
    return text;
}

void Media::giveUpAfter(Clock::duration patience) {
    mGivenUpAt = Clock::now() + patience;
}

int Media::isGivenUp(void* self) {
    const auto* const media = static_cast<const Media*>(self);
    return media->mStop.isRaised() || Clock::now() >= media->mGivenUpAt ? 1 : 0;
}

std::string Media::reasonOf(int error) const {
    if (mStop.isRaised()) return "it was stopped";
    if (mIsOpening && Clock::now() >= mGivenUpAt) return "no picture came within 5 s";
    if (error == AVERROR_EXIT || error == AVERROR(ETIMEDOUT)) return "nothing came for 2 s";
    return inWords(error);
}

Media::Read Media::failed(int error, std::string& problem) {
    if (mStop.isRaised()) return Read::STOPPED;
    problem = reasonOf(error);
    return Read::BROKEN;
}

/** FRAME when a packet of the stream has been read. */
Media::Read Media::readPacket(std::string& problem) {
    if (!mIsOpening) giveUpAfter(isStream() ? std::chrono::hours(1) : kForARead);
    for (;;) {
        av_packet_unref(mPacket.get());
        const int error = av_read_frame(mFormat.get(), mPacket.get());
        if (error == AVERROR(EAGAIN)) {
            if (!mStop.sleepUntil(Clock::now() + kBetweenLooks)) return Read::STOPPED;
            if (isGivenUp(this) != 0) return failed(AVERROR(ETIMEDOUT), problem);
        } else if (error == AVERROR_EOF && !isGivenUp(this)) {
            return Read::END;
        } else if (error < 0) {
            // What is damaged at one place has been played up to there.
            const bool isData = error == AVERROR_INVALIDDATA && mFramesOfPass > 0;
            return isData && !mIsLive ? Read::END : failed(error, problem);
        } else if (mPacket->stream_index == mStream->index) {
            return Read::FRAME;
        }
    }
}

/** FRAME when the decoder has something to go on with. */
Media::Read Media::feed(std::string& problem) {
    const Read read = readPacket(problem);
    if (read == Read::FRAME || read == Read::END) {
        // A packet that cannot be decoded is left out.
        avcodec_send_packet(mDecoder.get(), read == Read::END ? nullptr : mPacket.get());
        return Read::FRAME;
    }
    return read;
}

MediaFrame Media::stamped() {
    const auto period = static_cast<int64_t>(double(kSecondNs) / mRate);
    const int64_t stamp = mFrame->best_effort_timestamp;
    mLastStampNs = stamp == AV_NOPTS_VALUE
                       ? mLastStampNs + period
                       : av_rescale_q(stamp, mStream->time_base, {1, int{kSecondNs}});
    MediaFrame result = {FramePtr(av_frame_alloc()), mLastStampNs, period};
    av_frame_move_ref(result.frame.get(), mFrame.get());
    return result;
}

Media::Read Media::next(MediaFrame& next, std::string& problem) {
    if (mFirst) {
        next = std::move(*mFirst);
        mFirst.reset();
        return Read::FRAME;
    }
    for (;;) {
        const int error = avcodec_receive_frame(mDecoder.get(), mFrame.get());
        if (error == AVERROR_EOF) return Read::END;
        if (error == 0 && !isTooLarge(mFrame->width, mFrame->height)) {
            next = stamped();
            ++mFramesOfPass;
            return Read::FRAME;
        }
        if (error != AVERROR(EAGAIN)) {
            if (mStop.isRaised()) return Read::STOPPED;
            continue;
        }
        const Read read = feed(problem);
        if (read != Read::FRAME) return read;
    }
}

bool Media::rewind() {
    if (isStream() || mIsLive || mFramesOfPass == 0) return false;
    mFramesOfPass = 0;
    mLastStampNs = 0;
    giveUpAfter(kForARead);
    const int64_t start = mStream->start_time == AV_NOPTS_VALUE ? 0 : mStream->start_time;
    if (avformat_seek_file(mFormat.get(), mStream->index, INT64_MIN, start, INT64_MAX, 0) < 0) {
        return false;
    }
    avcodec_flush_buffers(mDecoder.get());
    return true;
}

}  // namespace camera
