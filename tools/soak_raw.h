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

bool sendCall(int connection, const RawCall& call);

}  // namespace tools
