#pragma once

#include <cstdint>
#include <filesystem>
#include <optional>

#include "figures.h"
#include "holdings.h"
#include "provider_process.h"

namespace tools {

/** A client that was killed (B), between two that were not (A and C). */
struct Killed {
    Figures before;  ///< of client A
    Figures after;   ///< of client C; each has every frame compared
    // What the provider held at the same point of the two clients' lives.
    kit::Holdings heldBefore;
    kit::Holdings heldAfter;
};

/**
 * Kills a client in the middle of its stream, and sees how the next one fares. Nothing, after a
 * sentence on stderr, when no client could be killed so.
 */
std::optional<Killed> playKilled(const ProviderProcess& provider, uint32_t frames, uint32_t buffers,
                                 const std::filesystem::path& clip);

}  // namespace tools
