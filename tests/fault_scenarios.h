#pragma once

#include "support/faults.h"

namespace faults {

/** What a fault may do to a client, at most. */
enum class Effect {
    NONE,     ///< nothing
    REFUSAL,  ///< a call is refused, or a frame not filled
    LOSS,     ///< its channel is given up
    SILENCE,  ///< a call is not answered in time
    END       ///< the process ends at once, by abort()
};

// Each does something first with a fault and then without, and ends the process with 1, and a line,
// when something does not hold.

/** How the client reaches the session, and in the last case who fills its buffers. */
enum class Road { SOCKET, DIRECT, SOURCE };
void runSession(Road road, bool isOldMapper, const Fault& fault, int n, Effect effect);
void runFile(const Fault& fault, int n);

[[noreturn]] void fail(const char* what);

}  // namespace faults
