#pragma once

#include <chrono>
#include <cstddef>

/** What the transport between processes takes, and how long it waits. */
namespace host {

/** Bytes of a message, its header included. */
constexpr size_t kMaxMessageBytes = size_t{64} << 10;
/** Descriptors of a message: those of its records, and one for each interface handed over. */
constexpr size_t kMaxMessageFds = 64;
/** Connections that one server serves at a time; one more is closed at once. */
constexpr size_t kMaxConnections = 64;
/**
 * Descriptor slots that a process that serves keeps for connections, by a lower limit: one for each
 * that may be, and one to refuse another with.
 */
constexpr size_t kConnectionFds = kMaxConnections + 1;
/** A call that brings descriptors fails when it would leave fewer slots below those. */
constexpr size_t kReservedFds = 16;
/** Descriptors that the kernel lets through with one message, whatever may cross. */
constexpr size_t kMaxArrivingFds = 253;
/** A call waits this long for its turn, its way and its answer together. */
constexpr std::chrono::milliseconds kCallPatience(1000);
/**
 * Requests of all clients of a server together that are on their way: accepted, and no result for
 * them handed to a callback yet. An accepted configuration starts afresh.
 */
constexpr size_t kMaxRequestsOnTheWay = 1024;
/** Different buffer ids that come with a handle from one accepted configuration to the next. */
constexpr size_t kMaxBufferIds = 4096;
/** Threads that close what a client sent and what may wait for that client. */
constexpr size_t kClosingThreads = 8;
/**
 * Descriptors that wait for those threads. While there are as many no new connection and no new
 * callback is taken, and a channel that brings a callback or what may not cross ends: it can add no
 * more than one message's.
 */
constexpr size_t kMaxWaitingToClose = 64;
/**
 * Slots that a process that serves has above all those, where its hard limit allows: as many as can
 * arrive before what arrives is looked at, on each connection and in two callbacks' answers, and
 * wait to be closed. What found no slot the kernel would close on the thread that receives it.
 */
constexpr size_t kArrivalFds =
    (kMaxConnections + 2) * kMaxArrivingFds + kMaxWaitingToClose + kClosingThreads;

}  // namespace host
