#pragma once

#include <sys/socket.h>

#include <vector>

#include "host/unique_fd.h"

namespace host::detail {

/**
 * Takes ownership of every descriptor that came with a message. Those that the sender passed go
 * into `fds`. Those that the kernel adds because of a socket option, a pidfd of the sender for
 * instance, are closed.
 */
void takeDescriptors(msghdr& message, std::vector<UniqueFd>& fds);

/**
 * Switches off the options that make the kernel add control data to messages. A socket that a peer
 * has passed comes with the options that the peer set, and the peer can set them again.
 */
void switchOffControlData(int socket);

}  // namespace host::detail
