#include "control_data.h"

#include <algorithm>
#include <cstring>

namespace host::detail {

namespace {

// Newer than some C libraries: a socket option, and the control message that it causes.
constexpr int kPassPidfd = 76;  // SO_PASSPIDFD
constexpr int kPidfd = 0x04;    // SCM_PIDFD

void appendDescriptorsOf(const cmsghdr& control, std::vector<UniqueFd>& fds) {
    if (control.cmsg_len < CMSG_LEN(0)) return;
    const size_t count = (control.cmsg_len - CMSG_LEN(0)) / sizeof(int);
    fds.reserve(fds.size() + count);
    for (size_t i = 0; i < count; ++i) {
        int fd = -1;
        memcpy(&fd, CMSG_DATA(&control) + i * sizeof(int), sizeof(int));
        fds.emplace_back(fd);
    }
}

}  // namespace

void takeDescriptors(msghdr& message, std::vector<UniqueFd>& fds) {
    for (cmsghdr* control = CMSG_FIRSTHDR(&message); control != nullptr;
         control = CMSG_NXTHDR(&message, control)) {
        if (control->cmsg_level != SOL_SOCKET) continue;
        std::vector<UniqueFd> unwanted;
        if (control->cmsg_type == SCM_RIGHTS) appendDescriptorsOf(*control, fds);
        if (control->cmsg_type == kPidfd) appendDescriptorsOf(*control, unwanted);
    }
}

void switchOffControlData(int socket) {
    const int off = 0;
    for (const int option : {SO_PASSCRED, kPassPidfd, SO_PASSSEC, SO_TIMESTAMP, SO_TIMESTAMPNS,
                             SO_TIMESTAMPING, SO_RXQ_OVFL}) {
        setsockopt(socket, SOL_SOCKET, option, &off, sizeof(off));
    }
}

}  // namespace host::detail
