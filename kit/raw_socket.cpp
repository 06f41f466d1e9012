#include "raw_socket.h"

#include <sys/socket.h>
#include <sys/un.h>

#include <cstring>

namespace kit {

host::UniqueFd connectRaw(const std::string& path) {
    sockaddr_un address = {};
    address.sun_family = AF_UNIX;
    strncpy(address.sun_path, path.c_str(), sizeof(address.sun_path) - 1);
    host::UniqueFd socket(::socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0));
    if (connect(socket.get(), reinterpret_cast<sockaddr*>(&address), sizeof(address)) != 0)
        socket.reset();
    return socket;
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
