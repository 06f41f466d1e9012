#include "support.h"

#include <poll.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <cstdio>
#include <cstdlib>

// The program's close() wins over the library's: no number may be closed that is not open.
extern "C" int close(int fd) {
    const long result = syscall(SYS_close, fd);
    fuzz::expect(result == 0 || fd < 0 || errno != EBADF, "a descriptor is closed twice");
    return static_cast<int>(result);
}

namespace fuzz {

void expect(bool holds, const char* what) {
    if (holds) return;
    fprintf(stderr, "FINDING: %s\n", what);
    abort();
}

Descriptors openDescriptors() {
    std::array<pollfd, Descriptors().size()> entries = {};
    for (size_t i = 0; i < entries.size(); ++i)
        entries[i].fd = static_cast<int>(i);
    Descriptors open;
    expect(poll(entries.data(), entries.size(), 0) >= 0, "poll fails");
    for (size_t i = 0; i < entries.size(); ++i)
        open[i] = (entries[i].revents & POLLNVAL) == 0;
    return open;
}

}  // namespace fuzz
