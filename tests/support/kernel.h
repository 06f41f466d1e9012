#pragma once

#include <sys/socket.h>

#include "raw_socket.h"

namespace testing_support {

/** What tests lean on, and what an old kernel, or an emulator in its place, does not do. */
struct Kernel {
    /** SO_PASSPIDFD: a descriptor of the sender's process goes with each message. */
    bool addsPidfds;
    /** Descriptors that find no room in the control data are closed, and MSG_CTRUNC tells of it; an
     * emulator leaves them open. */
    bool closesWhatHasNoRoom;
};

inline Kernel kernel() {
    constexpr int kPassPidfd = 76;
    const int on = 1;
    const host::UniqueFd any = kit::rawSocket();
    return {setsockopt(any.get(), SOL_SOCKET, kPassPidfd, &on, sizeof(on)) == 0, !IS_EMULATED};
}

}  // namespace testing_support
