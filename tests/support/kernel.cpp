#include "support/kernel.h"

#include <sys/socket.h>

#include "raw_socket.h"

namespace testing_support {

const Kernel& kernel() {
    constexpr int kPassPidfd = 76;
    const int on = 1;
    static const bool addsPidfds =
        setsockopt(kit::rawSocket().get(), SOL_SOCKET, kPassPidfd, &on, sizeof(on)) == 0;
    static const Kernel known = {addsPidfds, !IS_EMULATED};
    return known;
}

}  // namespace testing_support
