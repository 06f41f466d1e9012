#pragma once

#include <gtest/gtest.h>
#include <sys/socket.h>

#include <cstdint>
#include <cstring>
#include <initializer_list>
#include <string>
#include <utility>
#include <vector>

#include "host/unique_fd.h"
#include "raw_socket.h"

namespace testing_support {

constexpr uint32_t kCall = 0x464443;
constexpr uint32_t kAnswer = 0x464441;
constexpr uint32_t kRefused = 0x464452;
constexpr uint32_t kSetCallback = 1;
constexpr uint32_t kConfigure = 2;
constexpr uint32_t kRequest = 3;

inline std::vector<uint8_t> message(std::initializer_list<uint32_t> words, size_t more = 0) {
    std::vector<uint8_t> bytes(words.size() * 4 + more);
    memcpy(bytes.data(), words.begin(), words.size() * 4);
    return bytes;
}

/** A channel's socket without its manners. */
class RawClient {
public:
    explicit RawClient(host::UniqueFd connected) : mSocket(std::move(connected)) {}
    /** Still to be connected, or to listen. */
    explicit RawClient(std::string path) : mSocket(kit::rawSocket()), mPath(std::move(path)) {}

    int fd() const { return mSocket.get(); }
    bool connect() { return kit::connectRaw(fd(), mPath); }
    bool listen() { return kit::listenRaw(fd(), mPath); }
    void send(const std::vector<uint8_t>& bytes, const std::vector<int>& fds = {}) {
        EXPECT_TRUE(kit::sendRaw(fd(), bytes.data(), bytes.size(), fds));
    }
    /** Sends calls and reads no answer, until the other end has closed. */
    void sendUnread(const std::vector<uint8_t>& call) {
        while (kit::sendRaw(fd(), call.data(), call.size())) {
        }
    }
    /** Hands a callback over, and the kind of the answer; 0 when the other end has closed. */
    uint32_t setCallback(int socket) {
        std::vector<uint8_t> call = message({kCall, kSetCallback, 1, 1}, 1);
        call.back() = 1;
        send(call, {socket});
        return receivedKind();
    }
    /** The kind of the next message. */
    uint32_t receivedKind() { return received(0); }
    /** The method of the next call that comes. */
    uint32_t receivedMethod() { return received(1); }
    /** Whether a call is answered. */
    bool isServed() {
        send(message({kCall, 0, 1, 0}));
        return receivedKind() == kAnswer;
    }
    /** Whether something has come that nobody has received yet. */
    bool hasAnswer() const {
        char byte = 0;
        return recv(fd(), &byte, 1, MSG_PEEK | MSG_DONTWAIT) >= 0;
    }
    /** Whether the other end has closed, or closes before it answers. */
    bool isClosed() {
        char byte = 0;
        return recv(fd(), &byte, 1, 0) <= 0;
    }

private:
    /** A word of the header of the next message, 0 when the other end has closed. */
    uint32_t received(size_t word) {
        uint32_t words[4] = {};
        const ssize_t size = recv(fd(), words, sizeof(words), 0);
        EXPECT_TRUE(size <= 0 || size == static_cast<ssize_t>(sizeof(words)));
        return words[word];
    }

    host::UniqueFd mSocket;
    std::string mPath;
};

}  // namespace testing_support
