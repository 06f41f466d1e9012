#pragma once

#include <cstddef>
#include <cstdint>
#include <vector>

#include "host/wire.h"

namespace fuzz {

/** The object behind the end of a channel that reads a message. */
enum class Served { SESSION, CALLBACK, CONTROL };

/** What became of a message. */
struct Reading {
    bool isTaken = false;         ///< it is an answer, or it has reached the object
    const char* fault = nullptr;  ///< what is wrong with that; null when all is as it has to be
};

/**
 * Reads a message as an end of a channel does, and looks whether it was right to take it: then what
 * it was read as, written again, is this message, with these descriptors. They are closed
 * afterwards, in the background if need be.
 */
Reading readMessage(Served served, host::Peer from, const std::vector<uint8_t>& message,
                    const std::vector<int>& fds);

}  // namespace fuzz
