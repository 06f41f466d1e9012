#pragma once

#include <cstddef>
#include <cstdint>
#include <vector>

#include "host/wire.h"
#include "src/socket.h"

namespace fuzz {

/** Behind the end of a channel that reads a message: to its number a method's is added. */
enum Served : uint32_t { SESSION = 100, CALLBACK = 200, CONTROL = 300 };

/** What became of a message. */
struct Reading {
    bool isTaken = false;         ///< all of it was read as what its method takes
    const char* fault = nullptr;  ///< what is wrong with that; null when all is as it has to be
};

/**
 * Reads a message as an end of a channel does, and looks whether it was right to take it: then what
 * it was read as, written again, is this message, with these descriptors. They are closed
 * afterwards, in the background if need be.
 */
Reading readMessage(Served served, host::Peer from, const std::vector<uint8_t>& message,
                    const std::vector<int>& fds);

/** The message of this header and these values. */
template <typename... Values>
std::vector<uint8_t> messageOf(const host::detail::Header& header, const Values&... values) {
    host::Outgoing out;
    out.bytes.append(&header, sizeof(header));
    host::Writer writer(out);
    writer(values...);
    return {out.bytes.data(), out.bytes.data() + out.bytes.size()};
}

}  // namespace fuzz
