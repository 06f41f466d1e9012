#pragma once

#include <sys/types.h>

#include <cstdint>
#include <memory>

#include "host/unique_fd.h"

namespace bench {

/**
 * The least that a frame needs between two processes, written bare: a round trip with the request,
 * a hand-off to a second thread, and a round trip with the result and its descriptor. Messages have
 * the sizes of the real ones. Operations are for one thread.
 */
class BareRoad {
public:
    /** Starts the other process. */
    explicit BareRoad(uint32_t inFlight);
    ~BareRoad();
    BareRoad(const BareRoad&) = delete;
    BareRoad& operator=(const BareRoad&) = delete;

    pid_t provider() const { return mProvider; }
    /** False when the other process is gone. */
    bool run(uint32_t frames);

private:
    const uint32_t mInFlight;
    host::UniqueFd mRequests;
    host::UniqueFd mResults;
    pid_t mProvider = -1;
};

}  // namespace bench
