#pragma once

/**
 * What a descriptor is, told without asking a file system, which may be the client's own and never
 * answer: by its name in /proc/self/fd and by what only some kinds know.
 */
namespace host::detail {

/** A memfd, sealed or not, but not of huge pages, where a hole can raise a signal. */
bool isMemory(int fd);
/** An eventfd, a sync file, or an end of a pipe that has no name. */
bool isFence(int fd);
/** A SOCK_SEQPACKET socket of this machine, as a channel is. */
bool isChannelSocket(int fd);

}  // namespace host::detail
