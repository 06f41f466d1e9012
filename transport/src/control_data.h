#pragma once

#include <sys/socket.h>

#include <vector>

#include "host/unique_fd.h"

namespace host::detail {

/**
 * Takes over every descriptor that came with a message, whatever becomes of it. Only those that its
 * sender gave along get into `fds`. What the kernel adds because an option of the socket asks for
 * it, a pidfd of the sender for instance, is let go of.
 */
void takeDescriptors(msghdr& message, std::vector<UniqueFd>& fds);

/**
 * Switches off what makes the kernel add control data to messages: a socket that a peer handed over
 * comes with the options that the peer has set, and can set again.
 */
void switchOffControlData(int socket);

}  // namespace host::detail
