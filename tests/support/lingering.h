#pragma once

#include <fcntl.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <sys/socket.h>

#include <cerrno>
#include <cstdint>
#include <vector>

#include "raw_client.h"

namespace testing_support {

/** A socket whose last close waits 10 s for a peer that does not read, or until that has gone. */
struct Lingering {
    Lingering() {
        const host::UniqueFd listening(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
        sockaddr_in address = {};
        address.sin_family = AF_INET;
        address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        socklen_t size = sizeof(address);
        auto* const any = reinterpret_cast<sockaddr*>(&address);
        EXPECT_EQ(bind(listening.get(), any, size), 0);
        EXPECT_EQ(getsockname(listening.get(), any, &size), 0);
        EXPECT_EQ(listen(listening.get(), 1), 0);
        sending.reset(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
        EXPECT_TRUE(connect(sending.get(), any, size) == 0 || errno == EINPROGRESS);
        unread.reset(accept4(listening.get(), nullptr, nullptr, SOCK_CLOEXEC));
        const linger lingering = {1, 10};
        setsockopt(sending.get(), SOL_SOCKET, SO_LINGER, &lingering, sizeof(lingering));
        const std::vector<char> bytes(1 << 16);
        while (send(sending.get(), bytes.data(), bytes.size(), MSG_NOSIGNAL) > 0) {
        }
        fcntl(sending.get(), F_SETFL, 0);  // one that does not block does not linger
    }
    /** The last one is then what is on its way. */
    void giveTo(const kit::RawClient& client, const std::vector<uint8_t>& bytes,
                std::vector<int> fds) {
        fds.push_back(sending.get());
        client.send(bytes, fds);
        sending.reset();
    }
    host::UniqueFd sending;
    host::UniqueFd unread;
};

}  // namespace testing_support
