#include "socket.h"

#include <poll.h>
#include <sys/socket.h>
#include <sys/uio.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstring>

#include "control_data.h"
#include "host/limits.h"
#include "slot_reserve.h"

namespace host::detail {

namespace {

using ::android::DEAD_OBJECT;
using ::android::FAILED_TRANSACTION;
using ::android::NO_MEMORY;
using ::android::TIMED_OUT;

/** Short enough to end before kCallPatience does. */
constexpr auto kReceiveTimeout = kCallPatience - std::chrono::milliseconds(10);

/**
 * Room for all that one message can bring: the most descriptors that the kernel delivers, and what
 * it adds. Descriptors without room here are closed by the kernel on the receiving thread, however
 * long that takes.
 */
constexpr size_t kAddedBytes = 512;
using Control = std::array<char, CMSG_SPACE(sizeof(int) * kMaxArrivingFds) + kAddedBytes>;

Failure closedByPeer() {
    return {DEAD_OBJECT, "the peer has closed the connection"};
}

int millisecondsTo(Deadline deadline) {
    if (!deadline) return -1;
    const auto left =
        std::chrono::ceil<std::chrono::milliseconds>(*deadline - std::chrono::steady_clock::now());
    return static_cast<int>(std::max<int64_t>(left.count(), 0));
}

/** Waits until the socket is ready for `events`, or its peer is gone. */
Failure waitFor(int socket, short events, Deadline deadline) {
    for (;;) {
        pollfd entry = {socket, events, 0};
        const int ready = poll(&entry, 1, millisecondsTo(deadline));
        if (ready > 0) return {};
        if (ready == 0) return {TIMED_OUT, {}};  // the caller knows how long it has waited
        if (errno != EINTR) return {FAILED_TRANSACTION, strerror(errno)};
    }
}

bool hasHungUp(int socket) {
    pollfd entry = {socket, POLLRDHUP, 0};
    return poll(&entry, 1, 0) > 0;
}

Failure failureOf(int error) {
    switch (error) {
        case EPIPE:
        case ECONNRESET:
        case ENOTCONN:
            return closedByPeer();
        case ETOOMANYREFS:
            return {FAILED_TRANSACTION, "too many descriptors are on their way already"};
        default:
            return {FAILED_TRANSACTION, strerror(error)};
    }
}

/** Nothing when the call that failed is to be made again. */
Failure retry(int error, Deadline deadline) {
    if (error == EINTR) return {};
    if (error != EAGAIN) return failureOf(error);
    // A poll alone would not end it: where the peer has this socket, too, and says by SO_PEEK_OFF
    // what is looked at first, there is something to poll for and nothing to receive.
    if (deadline && std::chrono::steady_clock::now() >= *deadline) return {TIMED_OUT, {}};
    return {};
}

Failure check(int flags, size_t size, const Header& header, const Incoming& in) {
    if (in.fds.size() > kMaxMessageFds) return {FAILED_TRANSACTION, "too many descriptors"};
    if ((flags & MSG_CTRUNC) != 0) {
        return {NO_MEMORY, "descriptors were lost on the way: no slot was free for them"};
    }
    if ((flags & MSG_TRUNC) != 0) return {FAILED_TRANSACTION, "message too long"};
    if (size < sizeof(Header)) return {FAILED_TRANSACTION, "bytes that are no message"};
    if (header.kind != Header::CALL && header.kind != Header::ANSWER &&
        header.kind != Header::REFUSED) {
        return {FAILED_TRANSACTION, "bytes that are no message"};
    }
    if (header.fds != in.fds.size()) {
        return {FAILED_TRANSACTION, "other descriptors than the message announces"};
    }
    return {};
}

}  // namespace

Failure sendMessage(int socket, const Header& header, const Outgoing& out, Deadline deadline) {
    if (sizeof(header) + out.bytes.size() > kMaxMessageBytes || out.fds.size() > kMaxMessageFds) {
        return {FAILED_TRANSACTION, "the message is over the limits"};
    }
    std::array<iovec, 2> parts = {
        iovec{const_cast<Header*>(&header), sizeof(header)},               // NOLINT
        iovec{const_cast<uint8_t*>(out.bytes.data()), out.bytes.size()}};  // NOLINT
    alignas(cmsghdr) Control control;
    msghdr message = {};
    message.msg_iov = parts.data();
    message.msg_iovlen = parts.size();
    if (!out.fds.empty()) {
        const size_t bytes = out.fds.size() * sizeof(int);
        message.msg_control = control.data();
        message.msg_controllen = CMSG_SPACE(bytes);
        memset(control.data(), 0, message.msg_controllen);
        cmsghdr* const first = CMSG_FIRSTHDR(&message);
        first->cmsg_level = SOL_SOCKET;
        first->cmsg_type = SCM_RIGHTS;
        first->cmsg_len = CMSG_LEN(bytes);
        memcpy(CMSG_DATA(first), out.fds.data(), bytes);
    }
    for (;;) {
        if (sendmsg(socket, &message, MSG_NOSIGNAL | MSG_DONTWAIT) >= 0) return {};
        Failure failed = retry(errno, deadline);
        if (!failed.isOk()) return failed;
        Failure waited = waitFor(socket, POLLOUT, deadline);
        if (!waited.isOk()) return waited;
    }
}

bool setReceiveTimeout(int socket) {
    const timeval timeout = {0, std::chrono::microseconds(kReceiveTimeout).count()};
    return setsockopt(socket, SOL_SOCKET, SO_RCVTIMEO, &timeout, sizeof(timeout)) == 0;
}

Failure parseMessage(const uint8_t* bytes, size_t length, int flags, Header& header, Incoming& in) {
    if (length > 0) memcpy(&header, bytes, std::min(sizeof(header), length));
    Failure fault = check(flags, length, header, in);
    if (!fault.isOk()) return fault;
    in.data = bytes + sizeof(header);
    in.size = length - sizeof(header);
    return {};
}

Failure receiveMessage(int socket, Header& header, std::vector<uint8_t>& buffer, Incoming& in,
                       Deadline deadline, bool hasTimeout) {
    buffer.resize(kMaxMessageBytes);
    alignas(cmsghdr) Control control;
    iovec part = {buffer.data(), buffer.size()};
    msghdr message = {};
    // The receive itself waits, without a limit or by the socket's time-out, if that ends in time.
    // Otherwise a poll waits before it, because the message has hardly ever arrived already.
    bool waitsItself = !deadline || (hasTimeout && *deadline - std::chrono::steady_clock::now() >=
                                                       kReceiveTimeout);
    // Where not every descriptor may find a slot, the message is peeked at first. What the kernel
    // then closes is still held by the message in the socket, so closing it cannot block; the
    // socket is closed in the background.
    const bool looksFirst = SlotReserve::isTight();
    for (;;) {
        if (!waitsItself) {
            Failure waited = waitFor(socket, POLLIN, deadline);
            if (!waited.isOk()) return waited;
        }
        message = {};
        message.msg_iov = &part;
        message.msg_iovlen = 1;
        message.msg_control = control.data();
        message.msg_controllen = control.size();
        const ssize_t size = recvmsg(
            socket, &message,
            MSG_CMSG_CLOEXEC | (waitsItself ? 0 : MSG_DONTWAIT) | (looksFirst ? MSG_PEEK : 0));
        if (size >= 0) {
            const auto length = static_cast<size_t>(size);
            takeDescriptors(message, in.fds);
            if (looksFirst && (message.msg_flags & MSG_CTRUNC) == 0)
                recv(socket, nullptr, 0, MSG_DONTWAIT);
            // An empty message looks like the end of the connection.
            if (length == 0 && in.fds.empty() && hasHungUp(socket)) return closedByPeer();
            return parseMessage(buffer.data(), length, message.msg_flags, header, in);
        }
        Failure failed = retry(errno, deadline);
        if (!failed.isOk()) return failed;
        waitsItself = !deadline;
    }
}

}  // namespace host::detail
