#pragma once

#include <cstddef>
#include <cstdint>
#include <initializer_list>
#include <string>
#include <vector>

#include "host/unique_fd.h"

/** A channel's messages as a peer writes and reads them that has none of its manners. */
namespace kit {

constexpr uint32_t kCall = 0x464443;
constexpr uint32_t kAnswer = 0x464441;
constexpr uint32_t kRefused = 0x464452;
constexpr uint32_t kSetCallback = 1;
constexpr uint32_t kConfigure = 2;
constexpr uint32_t kRequest = 3;

using RawMessage = std::vector<uint8_t>;

/** These words, and so many bytes more. A message begins with kind, method, serial and descriptors.
 */
RawMessage rawMessage(std::initializer_list<uint32_t> words, size_t more = 0);
/** The call that hands over a callback, which is one descriptor. */
RawMessage rawCallback();

/** Descriptors that it is given to send stay the caller's. For one thread at a time. */
class RawClient {
public:
    explicit RawClient(host::UniqueFd connected);
    /** Still to be connected, or to listen. */
    explicit RawClient(std::string path);

    int fd() const { return mSocket.get(); }
    bool connect() const;
    bool listen() const;
    /** False when it was not sent whole. */
    bool send(const RawMessage& bytes, const std::vector<int>& fds = {}) const;
    /** Sends calls and reads no answer, until the other end has closed. */
    void sendUnread(const RawMessage& call) const;
    /** Hands a callback over, and the kind of the answer; 0 when the other end has closed. */
    uint32_t setCallback(int socket) const;
    /** The kind of the next message; 0 when the other end has closed. */
    uint32_t receivedKind() const;
    /** The method of the next call that comes. */
    uint32_t receivedMethod() const;
    /** Whether a call is answered. */
    bool isServed() const;
    /** Whether something has come that nobody has received yet. */
    bool hasAnswer() const;
    /** Whether the other end has closed, or closes before it answers. */
    bool isClosed() const;

private:
    host::UniqueFd mSocket;
    std::string mPath;
};

}  // namespace kit
