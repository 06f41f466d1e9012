#pragma once

#include <utils/Errors.h>

#include <chrono>
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "host/wire.h"

/** One message over one connected SOCK_SEQPACKET socket, with a deadline. */
namespace host::detail {

using Deadline = std::optional<std::chrono::steady_clock::time_point>;  ///< none: for ever

/** Why a message did not get through; OK when it did. */
struct Failure {
    ::android::status_t status = ::android::OK;
    std::string text;

    bool isOk() const { return status == ::android::OK; }
};

/** In front of every message. A call names its method; an answer repeats the call's serial. */
struct Header {
    enum Kind : uint32_t { CALL = 0x464443, ANSWER = 0x464441, REFUSED = 0x464452 };

    uint32_t kind;
    uint32_t method;
    uint32_t serial;
    uint32_t fds;
};

Failure sendMessage(int socket, const Header& header, const Outgoing& out, Deadline deadline);

/**
 * Gives the socket a time-out of its own, a little before kCallPatience, for receiveMessage() to
 * wait in. Only for a socket of which no other process has this end, because it could change that.
 */
bool setReceiveTimeout(int socket);

/**
 * Receives into `buffer`, which `in` then points into. Descriptors are close-on-exec and owned by
 * `in` whatever comes of it. A message that is no message, or has lost descriptors on the way, is a
 * failure of the channel: it must not be used again. A socket that has setReceiveTimeout()'s waits
 * in the receive itself, which is a system call less.
 */
Failure receiveMessage(int socket, Header& header, std::vector<uint8_t>& buffer, Incoming& in,
                       Deadline deadline, bool hasTimeout = false);

}  // namespace host::detail
