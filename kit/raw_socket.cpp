#include "raw_socket.h"

#include <sys/un.h>

#include <cstring>

namespace kit {

namespace {

sockaddr_un addressOf(const std::string& path) {
    sockaddr_un address = {};
    address.sun_family = AF_UNIX;
    strncpy(address.sun_path, path.c_str(), sizeof(address.sun_path) - 1);
    return address;
}

}  // namespace

host::UniqueFd rawSocket() {
    return host::UniqueFd(socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0));
}

bool connectRaw(int socket, const std::string& path) {
    const sockaddr_un address = addressOf(path);
    return connect(socket, reinterpret_cast<const sockaddr*>(&address), sizeof(address)) == 0;
}

bool listenRaw(int socket, const std::string& path) {
    const sockaddr_un address = addressOf(path);
    return bind(socket, reinterpret_cast<const sockaddr*>(&address), sizeof(address)) == 0 &&
           listen(socket, 0) == 0;
}

std::pair<host::UniqueFd, host::UniqueFd> socketPair(int type) {
    int ends[] = {-1, -1};
    socketpair(AF_UNIX, type | SOCK_CLOEXEC, 0, ends);
    return {host::UniqueFd(ends[0]), host::UniqueFd(ends[1])};
}

bool sendRaw(int socket, const void* bytes, size_t size, const std::vector<int>& fds) {
    const size_t fdBytes = sizeof(int) * fds.size();
    std::vector<char> control(CMSG_SPACE(fdBytes));
    iovec part = {const_cast<void*>(bytes), size};  // NOLINT: it is not written to
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
    return sendmsg(socket, &message, MSG_NOSIGNAL) == static_cast<ssize_t>(size);
}

}  // namespace kit
