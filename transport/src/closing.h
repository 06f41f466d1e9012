#pragma once

#include <vector>

#include "host/unique_fd.h"

/**
 * Closing what a client sent can wait for that client: a socket that lingers, a file of a file
 * system of its own, or a socket in whose queue such things wait unread. So it is done by threads
 * that nobody waits for, neither a call nor a lock nor the end of the process: at most
 * kClosingThreads of them, which are there only while there is something to close.
 *
 * Taking a descriptor never waits and never fails. Who could bring more asks isClosingBehind()
 * first, so that what waits stays bounded. Any thread.
 */
namespace host::detail {

void closeLater(UniqueFd fd);
/**
 * Lets go of what came with a message and nobody took: at once of what cannot keep anybody waiting,
 * later of the rest.
 */
void letGoOf(std::vector<UniqueFd>& fds);

/** Whether as many descriptors wait as may, kMaxWaitingToClose. */
bool isClosingBehind();

}  // namespace host::detail
