#pragma once

#include <sys/types.h>

#include <cstdint>
#include <memory>
#include <string>

namespace bench {

/** What the other process does until its end of the orders closes; the exit code. */
int produceForGst(int orders, const std::string& description);

/**
 * The road of GStreamer: another process copies marked frames into the shared memory of its
 * shmsink, and the shmsrc of this process looks at them where they are. Operations are for one
 * thread.
 */
class GstRoad {
public:
    /**
     * Starts the other process. The shared memory has room for so many frames. Null, and why in
     * `problem`, when GStreamer or its elements are missing.
     */
    static std::unique_ptr<GstRoad> start(uint32_t inFlight, std::string& problem);
    virtual ~GstRoad() = default;
    GstRoad(const GstRoad&) = delete;
    GstRoad& operator=(const GstRoad&) = delete;

    virtual pid_t producer() const = 0;
    /** Orders so many frames and waits for them. False when one did not come or was wrong. */
    virtual bool run(uint32_t frames) = 0;

protected:
    GstRoad() = default;
};

}  // namespace bench
