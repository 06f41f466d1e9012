#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "host/unique_fd.h"

/** A channel's socket without the transport's manners: for who speaks as a hostile peer would. */
namespace kit {

/** A new socket of a channel's kind; connected to this path, or invalid. */
host::UniqueFd connectRaw(const std::string& path);

/** One message with these descriptors, which stay the caller's. False when it was not sent whole.
 */
bool sendRaw(int socket, const void* bytes, size_t size, const std::vector<int>& fds = {});

}  // namespace kit
