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
 * A client that asks for the next frame from inside the callback that gives a buffer back, with
 * every buffer in flight. Operations are for one thread.
 */
class RoadClient {
public:
    /**
     * Connects, configures, and lets each buffer become known with a first frame. With `pictures`
     * every frame is looked at. Null, and a sentence in `problem`, when that fails.
     */
    static std::unique_ptr<RoadClient> connect(const std::string& socket, FrameSize size,
                                               uint32_t buffers, bool pictures,
                                               std::string& problem);
    ~RoadClient();
    RoadClient(const RoadClient&) = delete;
    RoadClient& operator=(const RoadClient&) = delete;

    /** Asks for so many frames and waits for them. False when one did not come or was wrong. */
    bool run(uint32_t frames);
    /** Sleeps until then, asks for one frame, and says when its callback was called. */
    std::optional<std::chrono::steady_clock::time_point> arrivalOfOne(
        std::chrono::steady_clock::time_point askAt);

private:
    class Receiver;
    using Session = vendor::zoru::zoruprovider::fdstream::V1_0::IFDSession;

    RoadClient(android::sp<Session> session, android::sp<Receiver> receiver);

    const android::sp<Session> mSession;
    const android::sp<Receiver> mReceiver;
};

}  // namespace bench
