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

using Deadline = std::optional<std::chrono::steady_clock::time_point>;  ///< none: no limit

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

[[nodiscard]] Failure sendMessage(int socket, const Header& header, const Outgoing& out,
                                  Deadline deadline);

/**
 * Gives the socket a receive time-out a little below kCallPatience, with which receiveMessage() can
 * wait. Only for an end that no other process has, because that one could change it.
 */
[[nodiscard]] bool setReceiveTimeout(int socket);

/**
 * Takes apart what was received: these bytes, the kernel's flags for them, and the descriptors that
 * `in` has already. `in` then points behind the header.
 */
[[nodiscard]] Failure parseMessage(const uint8_t* bytes, size_t length, int flags, Header& header,
                                   Incoming& in);

/**
 * Receives into `buffer`, which `in` then points into. Descriptors are close-on-exec and owned by
 * `in`, also after a failure. After any failure, malformed or lost data included, the channel must
 * not be received from again. With `hasTimeout`, for a socket that has setReceiveTimeout()'s, the
 * receive itself waits, which saves a system call.
 */
[[nodiscard]] Failure receiveMessage(int socket, Header& header, std::vector<uint8_t>& buffer,
                                     Incoming& in, Deadline deadline, bool hasTimeout = false);

}  // namespace host::detail
