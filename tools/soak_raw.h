#pragma once

#include <cutils/native_handle.h>

#include <cstdint>
#include <vector>

/** Calls as a client writes them that does without the transport. */
namespace tools {

struct RawCall {
    std::vector<uint8_t> bytes;
    std::vector<int> fds;  ///< stay the caller's
};

/** Asks for a frame. */
RawCall rawRequest(uint64_t bufferId, const native_handle_t* handle);
/** Hands over a callback that is served, or not, at the other end of this socket. */
RawCall rawCallback(int socket);

bool sendCall(int connection, const RawCall& call);

}  // namespace tools
