#include "raw_client.h"

#include <sys/socket.h>
#include <sys/types.h>

#include <array>
#include <cstring>
#include <utility>

#include "raw_socket.h"

namespace kit {

namespace {

/** The header of the next message; zeros when the other end has closed. */
std::array<uint32_t, 4> receiveHeader(int socket) {
    std::array<uint32_t, 4> header = {};
    if (recv(socket, header.data(), sizeof(header), 0) < static_cast<ssize_t>(sizeof(header)))
        return {};
    return header;
}

}  // namespace

RawMessage rawMessage(std::initializer_list<uint32_t> words, size_t more) {
    RawMessage bytes(words.size() * sizeof(uint32_t) + more);
    memcpy(bytes.data(), words.begin(), words.size() * sizeof(uint32_t));
    return bytes;
}

RawMessage rawCallback() {
    RawMessage call = rawMessage({kCall, kSetCallback, 1, 1}, 1);
    call.back() = 1;
    return call;
}

RawClient::RawClient(host::UniqueFd connected) : mSocket(std::move(connected)) {}

RawClient::RawClient(std::string path) : mSocket(rawSocket()), mPath(std::move(path)) {}

bool RawClient::connect() const {
    return connectRaw(fd(), mPath);
}

bool RawClient::listen() const {
    return listenRaw(fd(), mPath);
}

bool RawClient::send(const RawMessage& bytes, const std::vector<int>& fds) const {
    return sendRaw(fd(), bytes.data(), bytes.size(), fds);
}

void RawClient::sendUnread(const RawMessage& call) const {
    while (send(call)) {
    }
}

uint32_t RawClient::setCallback(int socket) const {
    return send(rawCallback(), {socket}) ? receivedKind() : 0;
}

uint32_t RawClient::receivedKind() const {
    return receiveHeader(fd())[0];
}

uint32_t RawClient::receivedMethod() const {
    return receiveHeader(fd())[1];
}

bool RawClient::isServed() const {
    return send(rawMessage({kCall, 0, 1, 0})) && receivedKind() == kAnswer;
}

bool RawClient::hasAnswer() const {
    char byte = 0;
    return recv(fd(), &byte, 1, MSG_PEEK | MSG_DONTWAIT) >= 0;
}

bool RawClient::isClosed() const {
    char byte = 0;
    return recv(fd(), &byte, 1, 0) <= 0;
}

}  // namespace kit
