#include "descriptor_kind.h"

#include <fcntl.h>
#include <linux/magic.h>
#include <sys/socket.h>
#include <sys/vfs.h>
#include <unistd.h>

#include <string>
#include <string_view>

namespace host::detail {

namespace {

/** The beginning of its name, which is enough to tell the kinds. A file's path begins with a slash.
 */
std::string nameOf(int fd) {
    char name[32];
    const std::string link = "/proc/self/fd/" + std::to_string(fd);
    const ssize_t length = readlink(link.c_str(), name, sizeof(name));
    return length > 0 ? std::string(name, static_cast<size_t>(length)) : std::string();
}

bool beginsWith(const std::string& name, std::string_view beginning) {
    return name.compare(0, beginning.size(), beginning) == 0;
}

int optionOf(int socket, int option) {
    int value = -1;
    socklen_t size = sizeof(value);
    return getsockopt(socket, SOL_SOCKET, option, &value, &size) == 0 ? value : -1;
}

}  // namespace

bool isMemory(int fd) {
    // The name first, because then nothing else is asked, which may not answer. Seals exist only in
    // memory, and so tell a memfd from a file that has such a name.
    struct statfs system = {};
    return beginsWith(nameOf(fd), "/memfd:") && fcntl(fd, F_GET_SEALS) >= 0 &&
           fstatfs(fd, &system) == 0 && system.f_type != HUGETLBFS_MAGIC;
}

bool isFence(int fd) {
    const std::string name = nameOf(fd);
    return beginsWith(name, "anon_inode:[eventfd]") || beginsWith(name, "anon_inode:sync_file") ||
           beginsWith(name, "pipe:[");
}

bool isChannelSocket(int fd) {
    return optionOf(fd, SO_TYPE) == SOCK_SEQPACKET && optionOf(fd, SO_DOMAIN) == AF_UNIX;
}

}  // namespace host::detail
