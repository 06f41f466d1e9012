#pragma once

#include <utils/StrongPointer.h>
#include <vendor/zoru/zoruprovider/fdstream/1.0/IFDSession.h>

#include <chrono>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>

#include "frames.h"

namespace bench {

/**
 * Where a client asks for the next frame: inside the callback that gives a buffer back, which
 * spares a thread, or in run(), on the thread that waits for buffers, which keeps two processors
 * busy.
 */
enum class Asking { InCallback, InRun };

/** A client with every buffer in flight. Operations are for one thread. */
class RoadClient {
public:
    /**
     * Connects, configures, and lets as many first frames come as there are buffers. With
     * `pictures` every frame is looked at. Null, and a sentence in `problem`, when that fails.
     */
    static std::unique_ptr<RoadClient> connect(const std::string& socket, FrameSize size,
                                               uint32_t buffers, Asking asking, bool pictures,
                                               std::string& problem);
    ~RoadClient();
    RoadClient(const RoadClient&) = delete;
    RoadClient& operator=(const RoadClient&) = delete;

    /** Asks for so many frames and waits for them. False when one did not come or was wrong. */
    bool run(uint32_t frames);
    /** Sleeps until then and asks for one frame: from there until its callback. */
    std::optional<std::chrono::steady_clock::duration> latencyOfOne(
        std::chrono::steady_clock::time_point askAt);

private:
    class Receiver;
    using Session = vendor::zoru::zoruprovider::fdstream::V1_0::IFDSession;

    RoadClient(android::sp<Session> session, android::sp<Receiver> receiver);

    const android::sp<Session> mSession;
    const android::sp<Receiver> mReceiver;
};

}  // namespace bench
