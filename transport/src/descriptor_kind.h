#pragma once

/**
 * Of which kind a descriptor is. Found out without asking its file system, which a client may serve
 * and leave unanswered: by its name in /proc/self/fd, its seals and its socket options.
 */
namespace host::detail {

/** A memfd, sealed or not, but not of huge pages, where a hole can raise a signal. */
bool isMemory(int fd);
/** An eventfd, a sync file, or an end of a pipe that has no name. */
bool isFence(int fd);
/** A SOCK_SEQPACKET socket of this machine, as a channel is. */
bool isChannelSocket(int fd);

}  // namespace host::detail
