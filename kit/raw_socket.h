#pragma once

#include <sys/socket.h>

#include <cstddef>
#include <string>
#include <utility>
#include <vector>

#include "host/unique_fd.h"

/** A channel's socket without the transport's manners: for who speaks as a hostile peer would. */
namespace kit {

/** A new socket of a channel's kind. */
host::UniqueFd rawSocket();
/** False when nobody at this path takes the connection. */
bool connectRaw(int socket, const std::string& path);
/** False when nobody can connect at this path. One that connects may wait, and no more. */
bool listenRaw(int socket, const std::string& path);

/** Two sockets that are connected with each other; invalid ones when there can be none. */
std::pair<host::UniqueFd, host::UniqueFd> socketPair(int type = SOCK_SEQPACKET);

/** One message with these descriptors, which stay the caller's. False when it was not sent whole.
 */
bool sendRaw(int socket, const void* bytes, size_t size, const std::vector<int>& fds = {});

}  // namespace kit
