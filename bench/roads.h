#pragma once

#include <sys/types.h>

#include <cstdint>
#include <memory>
#include <thread>

#include "bench.h"
#include "frame.h"

/** Roads of frames between two processes: ours and its references. */
namespace bench {

/**
 * Starts the other process, and ends it. Operations are for one thread; they throw Wrong when a
 * frame does not come or is wrong.
 */
class Road {
public:
    virtual ~Road() = default;

    virtual pid_t provider() const = 0;
    /** Asks for so many frames and waits for them. */
    virtual void run(uint32_t frames) = 0;
    /** Sleeps until then and asks for one frame: the microseconds from there until it comes. */
    virtual double latencyOfOne(Clock::time_point askAt) {
        std::this_thread::sleep_until(askAt);
        const Clock::time_point start = Clock::now();
        run(1);
        return microsecondsSince(start);
    }
};

/**
 * Where a client asks for the next frame: inside the callback that gives a buffer back, which
 * spares a thread, or in run(), on the thread that waits for buffers, which keeps two processors
 * busy.
 */
enum class Asking { InCallback, InRun };

/**
 * The real road: this program once more as the provider, and a client here with every buffer in
 * flight. With `pictures`, which are 720p, the provider copies a marked frame into each buffer, and
 * the client looks at it; without, frames are tiny and empty. Throws Wrong when it does not start.
 */
std::unique_ptr<Road> startOurRoad(uint32_t buffers, Asking asking, bool pictures);

/** Looks at a frame's luma, whose rows are so many bytes apart. */
using Look = std::function<void(const uint8_t* luma, size_t stride)>;

/** The real road with any provider. */
struct OurRoad {
    Arguments provider;  ///< this program as such; the socket is added
    uint32_t buffers;
    Asking asking;
    kit::FrameSize size;
    bool isMarked = false;
    Look look = {};  ///< at each frame, in their order, inside run(); where that is who asks
};
std::unique_ptr<Road> startRoad(const OurRoad& road);

/** What a provider does when its client has done something, before that is answered; or nothing. */
struct Served {
    std::function<void(bool isThere)> clientSet;
    std::function<void()> accepted;  ///< a request
};
/** The session of this process at a socket, until SIGTERM: gives the exit code. */
int serveSession(const std::string& socket, Served served);

/**
 * The least that a frame needs between two processes, written bare: a round trip with the request,
 * a hand-off to a second thread, and a round trip with the result and its descriptor. Messages have
 * the sizes of the real ones. It forks.
 */
std::unique_ptr<Road> startBareRoad(uint32_t inFlight, bool pictures);

/**
 * The road of GStreamer: another process copies marked frames into the shared memory of its
 * shmsink, which has room for so many, and the shmsrc of this process looks at them where they are.
 * Null, and why in `problem`, when GStreamer or its elements are missing.
 */
std::unique_ptr<Road> startGstRoad(uint32_t inFlight, std::string& problem);

}  // namespace bench
