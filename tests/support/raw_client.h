#pragma once

#include <gtest/gtest.h>
#include <sys/socket.h>
#include <sys/un.h>

#include <cstdint>
#include <cstring>
#include <initializer_list>
#include <string>
#include <utility>
#include <vector>

#include "host/unique_fd.h"

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
    explicit RawClient(const std::string& path)
        : mSocket(socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0)) {
        mAddress.sun_family = AF_UNIX;
        strncpy(mAddress.sun_path, path.c_str(), sizeof(mAddress.sun_path) - 1);
    }
    int fd() const { return mSocket.get(); }
    bool connect() {
        return ::connect(mSocket.get(), reinterpret_cast<sockaddr*>(&mAddress), sizeof(mAddress)) ==
               0;
    }
    bool listen() {
        return bind(mSocket.get(), reinterpret_cast<sockaddr*>(&mAddress), sizeof(mAddress)) == 0 &&
               ::listen(mSocket.get(), 1) == 0;
    }
    void send(const std::vector<uint8_t>& bytes, const std::vector<int>& fds = {}) {
        const size_t fdBytes = sizeof(int) * fds.size();
        std::vector<char> control(CMSG_SPACE(fdBytes));
        iovec part = {const_cast<uint8_t*>(bytes.data()), bytes.size()};
        msghdr message = {};
        message.msg_iov = &part;
        message.msg_iovlen = 1;
        if (!fds.empty()) {
            message.msg_control = control.data();
            message.msg_controllen = control.size();
            cmsghdr* const first = CMSG_FIRSTHDR(&message);
            first->cmsg_level = SOL_SOCKET;
            first->cmsg_type = SCM_RIGHTS;
            first->cmsg_len = CMSG_LEN(fdBytes);
            memcpy(CMSG_DATA(first), fds.data(), fdBytes);
        }
        EXPECT_GE(sendmsg(mSocket.get(), &message, MSG_NOSIGNAL), 0);
    }
    /** Hands a callback over, and the kind of the answer; 0 when the other end has closed. */
    uint32_t setCallback(int socket) {
        std::vector<uint8_t> call = message({kCall, kSetCallback, 1, 1}, 1);
        call.back() = 1;
        send(call, {socket});
        return received(0);
    }
    /** The kind of the next message. */
    uint32_t receivedKind() { return received(0); }
    /** Sends calls and reads no answer, until the other end has closed. */
    void sendUnread(const std::vector<uint8_t>& call) {
        while (::send(mSocket.get(), call.data(), call.size(), MSG_NOSIGNAL) > 0) {
        }
    }
    /** The method of the next call that comes. */
    uint32_t receivedMethod() { return received(1); }
    /** Whether a call is answered. */
    bool isServed() {
        send(message({kCall, 0, 1, 0}));
        return received(0) == kAnswer;
    }
    /** Whether something has come that nobody has received yet. */
    bool hasAnswer() const {
        char byte = 0;
        return recv(mSocket.get(), &byte, 1, MSG_PEEK | MSG_DONTWAIT) >= 0;
    }
    /** Whether the other end has closed, or closes before it answers. */
    bool isClosed() {
        char byte = 0;
        return recv(mSocket.get(), &byte, 1, 0) <= 0;
    }

private:
    /** A word of the header of the next message, 0 when the other end has closed. */
    uint32_t received(size_t word) {
        uint32_t words[4] = {};
        const ssize_t size = recv(mSocket.get(), words, sizeof(words), 0);
        EXPECT_TRUE(size <= 0 || size == static_cast<ssize_t>(sizeof(words)));
        return words[word];
    }

    host::UniqueFd mSocket;
    sockaddr_un mAddress = {};
};

}  // namespace testing_support
