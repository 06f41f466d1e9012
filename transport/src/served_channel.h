#pragma once

#include <memory>

#include "host/remote.h"
#include "served_calls.h"

namespace host::detail {

/**
 * Takes calls from a socket until the peer lets go, is at fault, or the socket is shut down. What a
 * client's calls bring is held against what may cross; a provider is trusted. Tells the watches of
 * each call.
 */
ServedEnd serveChannel(int socket, Stub& stub, Peer peer, const Watches& watches = {});

/**
 * Serves an object on a thread of its own, for as long as the peer holds the other end. False when
 * no thread can be made.
 */
bool serveDetached(UniqueFd socket, const sp<IBase>& object, std::unique_ptr<Stub> stub);

/** The makers of a registered interface; null for one that is not known. */
const InterfaceMakers* findInterface(const char* descriptor);

/** A connected pair of close-on-exec SOCK_SEQPACKET sockets. */
bool makePair(UniqueFd& one, UniqueFd& other);

}  // namespace host::detail
