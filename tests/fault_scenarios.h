#pragma once

#include <string>

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

/** How the client reaches the session, in the last case with no mapper but the old one. */
enum class Road { SOCKET, DIRECT, OLD_MAPPER };

// Each does something first with the fault and then without, and fails when something does not
// hold.

void runSession(Road road, Effect effect);
void runFile();

/** Ends the process with 1 and a line. */
[[noreturn]] void fail(const std::string& what);

}  // namespace faults
