#pragma once

#include <chrono>
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "soak_process.h"
#include "soak_storm.h"

namespace tools {

/** What a soak has come to when all clients are gone. Value type. */
struct SoakPause {
    std::chrono::seconds time;  ///< since the start
    StormCounts counts;
    SoakHoldings holdings;
};

/** Prints the pauses, a line of 80 columns each, and judges them. */
class SoakLedger {
public:
    static void printHead();
    /** Prints a pause. Empty, or in words what has grown, and from what to what. */
    std::string add(const SoakPause& pause);
    /** What the first pause found; nothing before it. */
    std::optional<SoakHoldings> first() const;
    /** The last sentence of a soak in which all held. REQUIRES: there was a pause. */
    std::string verdict() const;

private:
    std::string faultOf(const SoakPause& pause) const;

    std::vector<SoakPause> mPauses;
};

}  // namespace tools
