#pragma once

#include <memory>

#include "host/remote.h"
#include "served_calls.h"

namespace host::detail {

/**
 * Serves calls from a socket until the peer closes it, is at fault, or the socket is shut down.
 * What a client's calls bring is checked against what may cross; a provider is trusted. Tells the
 * watches of each call.
 */
ServedEnd serveChannel(int socket, Stub& stub, Peer peer, const Watches& watches = {});

/**
 * Serves an object on a thread of its own, for as long as the peer holds the other end. False when
 * no thread can be made.
 */
[[nodiscard]] bool serveDetached(UniqueFd socket, const sp<IBase>& object,
                                 std::unique_ptr<Stub> stub);

/** The makers of a registered interface; null for an unknown one. */
[[nodiscard]] const InterfaceMakers* findInterface(const char* descriptor);

/** A connected pair of close-on-exec SOCK_SEQPACKET sockets; false when none can be made. */
[[nodiscard]] bool makePair(UniqueFd& one, UniqueFd& other);

}  // namespace host::detail
