#pragma once

#include <utils/StrongPointer.h>
#include <vendor/zoru/zoruprovider/fdstream/1.0/IFDSession.h>

#include <chrono>
#include <cstdint>
#include <optional>

#include "frame.h"

namespace tools {

using Clock = std::chrono::steady_clock;

/** What became of one request. */
struct Answer {
    enum class Outcome {
        Filled,   ///< `frame` is the picture
        Failed,   ///< an error result
        Refused,  ///< the session did not take the request
        Stray,    ///< a result that belongs to no request under way
    };

    Outcome outcome;
    uint32_t frameNumber;
    uint64_t bufferId;
    Clock::time_point arrival;
    Clock::duration latency;  ///< from the request to its answer
    Frame frame;
};

/**
 * A client of the stream: asks for a number of frames in buffers of its own, and keeps every buffer
 * in flight until all frames are asked for. Knows the session by its client interface only.
 *
 * The next request is made from inside the callback that gives a buffer back. Pictures are copied
 * out there too, so who looks at them delays nobody. Operations are for one thread.
 */
class StreamClient {
public:
    StreamClient(const android::sp<vendor::zoru::zoruprovider::fdstream::V1_0::IFDSession>& session,
                 uint32_t frames);
    /** Takes the callback away. A call under way may end later; it keeps what it needs. */
    ~StreamClient();
    StreamClient(const StreamClient&) = delete;
    StreamClient& operator=(const StreamClient&) = delete;

    /**
     * Allocates the buffers, configures the stream and asks for one frame in each buffer. False
     * after a sentence on stderr.
     */
    bool start(uint32_t buffers);
    /** The next answer, in the order of arrival; nothing when none comes for so long. */
    std::optional<Answer> next(std::chrono::milliseconds patience);
    /** Requests made so far. */
    uint32_t asked() const;

private:
    class Receiver;

    const android::sp<vendor::zoru::zoruprovider::fdstream::V1_0::IFDSession> mSession;
    const android::sp<Receiver> mReceiver;
};

}  // namespace tools
