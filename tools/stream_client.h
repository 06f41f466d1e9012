#pragma once

#include <utils/StrongPointer.h>
#include <vendor/zoru/zoruprovider/fdstream/1.0/IFDSession.h>

#include <chrono>
#include <cstdint>
#include <optional>
#include <string>

#include "frame.h"
#include "host/served_watch.h"
#include "view/told.h"

namespace tools {

using Clock = std::chrono::steady_clock;

/** What a buffer is full of before it is filled. */
constexpr uint8_t kNotWritten = 0xA5;

/** What a client asks for. */
struct StreamSettings {
    uint32_t frames;
    uint32_t buffers;
    kit::FrameSize size = kit::kClipSize;
    /** The pace of the requests; 0 for as fast as buffers come back. */
    double requestsPerSecond = 0;
    /** The number of the first one; those before it are counted among `frames`. */
    uint32_t firstFrame = 0;
    /** How a picture is copied out of its buffer. */
    kit::Frame (*copy)(const host::Buffer&) = kit::packed;
    /**
     * No picture is copied. The newest one stays in its buffer until that is given back; one that a
     * newer one finds unread is skipped, and its buffer is asked in again at once.
     */
    bool lends = false;
    /** What is added to the number of each request. */
    uint32_t numbersFrom = 0;
};

/** What became of one request. */
struct Answer {
    enum class Outcome {
        Filled,          ///< `frame` is the picture
        Skipped,         ///< a picture that a newer one found unread, of a stream that lends
        Failed,          ///< an error result
        Refused,         ///< the session did not take the request
        Stray,           ///< a result that belongs to no request under way
        ForeignPicture,  ///< a result in a buffer of another client, for which a frame was taken
        ForeignError,    ///< an error result for another client
    };

    Outcome outcome;
    uint32_t frameNumber;
    uint32_t buffer;  ///< its place among the client's buffers
    Clock::time_point arrival;
    Clock::duration latency;  ///< from the request to its answer
    kit::Frame frame;         ///< as the settings' `copy` has it
    camera::Told told;        ///< of the frame, before this
    /** Where the picture is, of a stream that lends, until it is given back. */
    const host::Buffer* lent = nullptr;
};

/** What a stream can be lost by. */
enum class Loss {
    None,
    Gone,       ///< the provider is not there any more
    TakenOver,  ///< another client has the session
    GivenUp,    ///< this client did not answer in time, and is not called any more
};

class StreamReceiver;

/**
 * A client of the stream: asks for a number of frames in buffers of its own, at a pace or with
 * every buffer in flight, until all frames are asked for. Knows the session by its client interface
 * only.
 *
 * Without a pace the next request is made from inside the callback that gives a buffer back.
 * Pictures are copied out there too, so who looks at them delays nobody; who is far behind gets no
 * further ones until then. Operations are for one thread.
 */
class StreamClient {
public:
    StreamClient(const android::sp<vendor::zoru::zoruprovider::fdstream::V1_0::IFDSession>& session,
                 const StreamSettings& settings);
    /** Takes the callback away, if the session still has it, and waits for the last call's end. */
    ~StreamClient();
    StreamClient(const StreamClient&) = delete;
    StreamClient& operator=(const StreamClient&) = delete;

    /**
     * Allocates the buffers, configures the stream and, without a pace, asks for one frame in each
     * buffer. False when that cannot be: the sentence is in `problem`, or in lossInWords().
     */
    bool start(std::string& problem);
    /**
     * The next answer, in the order of arrival; nothing when none comes for so long, or the
     * provider is gone. Requests that have a pace are made while this waits.
     */
    std::optional<Answer> next(std::chrono::milliseconds patience);
    /** Of a stream that lends: the picture of a filled answer is looked at no more. */
    void giveBack(const Answer& answer);
    /** Makes no further request. */
    void stopAsking();
    /** Requests made so far. */
    uint32_t asked() const;
    /** Requests that it will have made at the end. */
    uint32_t wanted() const;
    /** Whether no request is under way. */
    bool isIdle() const;
    /** None as long as answers are left that came before it. */
    Loss loss() const;
    std::string lossInWords() const;

private:
    /** Looks at both halves of an answer: whether the call arrived, and what it said. */
    bool takes(
        const android::hardware::Return<android::hardware::camera::common::V1_0::Status>& answer,
        std::string& problem);

    const android::sp<vendor::zoru::zoruprovider::fdstream::V1_0::IFDSession> mSession;
    const android::sp<StreamReceiver> mReceiver;
    const host::ServedWatch mWatch;  // tells the receiver when the session does not call any more
};

}  // namespace tools
