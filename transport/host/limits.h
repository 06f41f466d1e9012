#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>

/** What the transport between processes takes, and how long it waits. */
namespace host {

/** Bytes of a message, its header included. */
constexpr size_t kMaxMessageBytes = size_t{64} << 10;
/** Descriptors of a message: those of its records, and one for each interface passed along. */
constexpr size_t kMaxMessageFds = 64;
/** Connections that one server serves at a time; one more is closed at once. */
constexpr size_t kMaxConnections = 64;
/** The same for the server of the session's controls, which has a socket of its own. */
constexpr size_t kMaxControlConnections = 8;
/**
 * Descriptor slots that a serving process keeps for connections, by lowering its limit: one for
 * each connection of the two servers, and one each for accepting a further one in order to refuse
 * it. Since neither server takes more than its own, neither can take the other's.
 */
constexpr size_t kConnectionFds = kMaxConnections + 1 + kMaxControlConnections + 1;
/** A call that brings descriptors fails when fewer free slots than this would be left below those.
 */
constexpr size_t kReservedFds = 16;
/** The most descriptors that the kernel delivers with one message, whatever this transport allows.
 */
constexpr size_t kMaxArrivingFds = 253;
/** How long a call takes at most: waiting for its turn, being sent, and being answered. */
constexpr std::chrono::milliseconds kCallPatience(1000);
/**
 * Requests that are on their way, of all clients of a server together: accepted, and not yet
 * answered by a result that was passed to a callback. At an accepted configuration they are left
 * over, and the count is 0 again.
 */
constexpr size_t kMaxRequestsOnTheWay = 1024;
/**
 * Requests of earlier configurations that may still be answered. While there are more, none is
 * taken, so one more configuration's may come on top of them: no more than 5,120 are on their way.
 */
constexpr size_t kMaxLeftOver = 3 * kMaxRequestsOnTheWay;
/** Those are forgotten when nothing was passed to a callback for so long: none waits then. */
constexpr auto kLeftOverPatience = 2 * kCallPatience;
/** Different buffer ids that arrive with a handle between one accepted configuration and the next.
 */
constexpr size_t kMaxBufferIds = 4096;
/** Bytes of memory that come with those. */
constexpr uint64_t kMaxBroughtBytes = uint64_t{1} << 30;
/** Threads that close what a client sent, where closing may have to wait for that client. */
constexpr size_t kClosingThreads = 8;
/**
 * Descriptors that wait for those threads. While this many wait, no connection and no callback is
 * accepted, and a channel that brings a callback or a forbidden descriptor is ended. So each
 * channel can add the descriptors of one message at most.
 */
constexpr size_t kMaxWaitingToClose = 64;
/**
 * Slots that a serving process has above all those, where its hard limit allows: enough for all
 * that can arrive before it is inspected (on each connection and in two callbacks' answers) and for
 * all that waits to be closed. A descriptor that finds no slot is closed by the kernel, on the
 * thread that receives it.
 */
constexpr size_t kArrivalFds = (kMaxConnections + kMaxControlConnections + 2) * kMaxArrivingFds +
                               kMaxWaitingToClose + kClosingThreads;

}  // namespace host
