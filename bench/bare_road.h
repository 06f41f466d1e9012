#pragma once

#include <sys/types.h>

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <optional>

#include "frames.h"
#include "host/unique_fd.h"
#include "marked_frame.h"

namespace bench {

/** Memory for some 720p frames that a process keeps sharing with those it forks. */
class SharedFrames {
public:
    /** Ends the program when memory is short. */
    explicit SharedFrames(uint32_t count);
    ~SharedFrames();
    SharedFrames(const SharedFrames&) = delete;
    SharedFrames& operator=(const SharedFrames&) = delete;

    /** The packed memory that a frame with this number goes to; they take turns. */
    uint8_t* of(uint32_t frameNumber) const { return mBytes + frameNumber % mCount * kFrameBytes; }

private:
    static constexpr size_t kFrameBytes = kSizes[0].packedBytes();

    const uint32_t mCount;
    uint8_t* const mBytes;
};

/**
 * The least that a frame needs between two processes, written bare: a round trip with the request,
 * a hand-off to a second thread, and a round trip with the result and its descriptor. Messages have
 * the sizes of the real ones. Operations are for one thread.
 */
class BareRoad {
public:
    /** Starts the other process. With `pictures` it copies a marked 720p frame for each request. */
    BareRoad(uint32_t inFlight, bool pictures);
    ~BareRoad();
    BareRoad(const BareRoad&) = delete;
    BareRoad& operator=(const BareRoad&) = delete;

    pid_t provider() const { return mProvider; }
    /** False when the other process is gone, or a message was another one. */
    bool run(uint32_t frames);
    /**
     * Sleeps until then and asks for one frame: from there until its result comes, on a thread of
     * its own that waits for it, as the client of the real road has one for its callback.
     */
    std::optional<std::chrono::steady_clock::duration> latencyOfOne(
        std::chrono::steady_clock::time_point askAt);

private:
    /** Of a known buffer's messages, as the real road has them. */
    struct Sizes {
        size_t request;
        size_t accepted;
        size_t result;
        size_t received;
    };
    class Provider;

    static Sizes sizesOfMessages();
    bool isExpected(bool everyByte);

    const Sizes mSizes;
    const uint32_t mInFlight;
    const std::unique_ptr<const SharedFrames> mFrames;  // null without pictures
    MarkedFrame mExpected;
    uint32_t mCame = 0;
    host::UniqueFd mRequests;
    host::UniqueFd mResults;
    pid_t mProvider = -1;
};

}  // namespace bench
