#pragma once

#include <gtest/gtest.h>
#include <netinet/in.h>
#include <sys/socket.h>

#include <cstdint>
#include <vector>

#include "raw_client.h"

namespace testing_support {

/** A socket whose last close waits 10 s for a peer that does not read, or until that has gone. */
struct Lingering {
    Lingering() {
        const host::UniqueFd listening(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
        EXPECT_EQ(listen(listening.get(), 1), 0);
        sockaddr_in address = {};
        socklen_t size = sizeof(address);
        auto* const any = reinterpret_cast<sockaddr*>(&address);
        EXPECT_EQ(getsockname(listening.get(), any, &size), 0);
        EXPECT_EQ(connect(sending.get(), any, size), 0);
        unread.reset(accept4(listening.get(), nullptr, nullptr, SOCK_CLOEXEC));
        const linger lingering = {1, 10};
        setsockopt(sending.get(), SOL_SOCKET, SO_LINGER, &lingering, sizeof(lingering));
        const std::vector<char> bytes(1 << 16);
        while (send(sending.get(), bytes.data(), bytes.size(), MSG_NOSIGNAL | MSG_DONTWAIT) > 0) {
        }
    }
    /** The last one is then what is on its way. */
    void giveTo(const kit::RawClient& client, const kit::RawMessage& bytes, std::vector<int> fds) {
        fds.push_back(sending.get());
        client.send(bytes, fds);
        sending.reset();
    }
    host::UniqueFd sending{socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0)};
    host::UniqueFd unread;
};

}  // namespace testing_support
