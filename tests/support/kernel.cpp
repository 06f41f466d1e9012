#include "support/kernel.h"

#include <sys/socket.h>
#include <unistd.h>

#include <cstring>

#include "holdings.h"
#include "raw_socket.h"

namespace testing_support {

namespace {

constexpr int kPassPidfd = 76;

bool addsPidfds() {
    const int on = 1;
    const host::UniqueFd any = kit::rawSocket();
    return setsockopt(any.get(), SOL_SOCKET, kPassPidfd, &on, sizeof(on)) == 0;
}

/** Where it does not, what it leaves open stays so. */
bool closesWhatHasNoRoom() {
    const auto [mine, theirs] = kit::socketPair();
    const int before = kit::Holdings::of().descriptors;
    kit::sendRaw(mine.get(), "x", 1, {STDERR_FILENO, STDERR_FILENO});
    char byte = 0;
    iovec part = {&byte, 1};
    alignas(cmsghdr) char room[CMSG_LEN(sizeof(int))] = {};
    msghdr message = {};
    message.msg_iov = &part;
    message.msg_iovlen = 1;
    message.msg_control = room;
    message.msg_controllen = sizeof(room);
    if (recvmsg(theirs.get(), &message, MSG_CMSG_CLOEXEC) != 1) return false;
    int first = -1;
    memcpy(&first, CMSG_DATA(reinterpret_cast<const cmsghdr*>(room)), sizeof(first));
    close(first);
    return (message.msg_flags & MSG_CTRUNC) != 0 && kit::Holdings::of().descriptors == before;
}

}  // namespace

const Kernel& kernel() {
    static const Kernel tried = {addsPidfds(), closesWhatHasNoRoom()};
    return tried;
}

}  // namespace testing_support
