#pragma once

#include <vector>

#include "host/unique_fd.h"

/**
 * Closing what a client sent can block on that client: a socket that lingers, a file of a file
 * system that the client serves, or a socket with such things unread in its queue. So it is done in
 * the background, by at most kClosingThreads threads that exist only while there is something to
 * close. No call, no lock and not the end of the process waits for them.
 *
 * closeLater() never blocks and never fails. Before taking more from a client, ask
 * isClosingBehind(), so that what waits stays bounded. Any thread.
 */
namespace host::detail {

void closeLater(UniqueFd fd);
/**
 * Closes what came with a message and was not used: at once where closing cannot block, otherwise
 * in the background.
 */
void closeUnused(std::vector<UniqueFd>& fds);

/** Whether kMaxWaitingToClose descriptors, the most that are allowed, wait to be closed. */
[[nodiscard]] bool isClosingBehind();

}  // namespace host::detail
