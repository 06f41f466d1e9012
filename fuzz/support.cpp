#include "support.h"

#include <fcntl.h>
#include <sys/eventfd.h>
#include <sys/mman.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>

#include "raw_socket.h"

// The program's close() wins over the library's: no number may be closed that is not open.
extern "C" int close(int fd) {
    const long result = syscall(SYS_close, fd);
    fuzz::expect(result == 0 || fd < 0 || errno != EBADF, "a descriptor is closed twice");
    return static_cast<int>(result);
}

namespace fuzz {

const host::UniqueFd kKind[kKinds] = {
    host::UniqueFd(memfd_create("any", MFD_CLOEXEC)),
    host::UniqueFd(eventfd(0, EFD_CLOEXEC)),
    kit::rawSocket(),
    host::UniqueFd(open("/dev/null", O_RDWR | O_CLOEXEC)),
    host::UniqueFd(open("/tmp", O_RDONLY | O_DIRECTORY | O_CLOEXEC)),
    kit::socketPair(SOCK_STREAM).first};

void expect(bool holds, const char* what) {
    if (holds) return;
    fprintf(stderr, "FINDING: %s\n", what);
    abort();
}

}  // namespace fuzz
