#pragma once

#include <sys/socket.h>
#include <unistd.h>

#include "holdings.h"
#include "raw_socket.h"

namespace testing_support {

// What tests lean on, and what an old kernel, or an emulator in its place, does not do. Tried out
// before main(), while there is one thread.

/** SO_PASSPIDFD: a descriptor of the sender's process goes with each message. */
inline const bool kAddsPidfds = [] {
    constexpr int kPassPidfd = 76;
    const int on = 1;
    return setsockopt(kit::rawSocket().get(), SOL_SOCKET, kPassPidfd, &on, sizeof(on)) == 0;
}();

/** Descriptors that find no room in the control data are closed, and MSG_CTRUNC tells of it. Where
 * it is not so, what is left open here stays so. */
inline const bool kClosesWhatHasNoRoom = [] {
    const auto [mine, theirs] = kit::socketPair();
    const int before = kit::Holdings::of().descriptors;
    kit::sendRaw(mine.get(), "x", 1, {STDERR_FILENO, STDERR_FILENO});
    char byte = 0;
    iovec part = {&byte, 1};
    alignas(cmsghdr) char room[CMSG_LEN(sizeof(int))] = {};
    msghdr message = {nullptr, 0, &part, 1, room, sizeof(room), 0};
    if (recvmsg(theirs.get(), &message, MSG_CMSG_CLOEXEC) != 1) return false;
    close(*reinterpret_cast<const int*>(CMSG_DATA(reinterpret_cast<const cmsghdr*>(room))));
    return (message.msg_flags & MSG_CTRUNC) != 0 && kit::Holdings::of().descriptors == before;
}();

}  // namespace testing_support
