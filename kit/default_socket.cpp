#include "default_socket.h"

#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>

namespace kit {

namespace {

namespace fs = std::filesystem;

fs::path folderPath() {
    const char* const runtime = getenv("XDG_RUNTIME_DIR");
    if (runtime != nullptr && fs::path(runtime).is_absolute())
        return fs::path(runtime) / "fdstream";
    return "/tmp/fdstream-" + std::to_string(geteuid());
}

/** In words, why others could get at this folder; empty when they can't. */
std::string exposureOf(const fs::path& folder) {
    struct stat status = {};
    if (lstat(folder.c_str(), &status) != 0) return strerror(errno);
    if (S_ISLNK(status.st_mode)) return "it is a link, and has to be a folder";
    if (!S_ISDIR(status.st_mode)) return "it is not a folder";
    if (status.st_uid != geteuid()) return "it belongs to another user";
    if ((status.st_mode & (S_IRWXG | S_IRWXO)) != 0) return "it is open to other users";
    return {};
}

}  // namespace

std::optional<fs::path> privateFolder(std::string& problem) {
    fs::path folder = folderPath();
    std::string reason;
    if (mkdir(folder.c_str(), S_IRWXU) != 0 && errno != EEXIST) {
        reason = strerror(errno);
    } else {
        reason = exposureOf(folder);
    }
    if (reason.empty()) return folder;
    problem = "folder " + folder.string() + " cannot hold a socket: " + reason;
    return std::nullopt;
}

std::optional<std::string> defaultSocket(std::string& problem) {
    const std::optional<fs::path> folder = privateFolder(problem);
    if (!folder) return std::nullopt;
    return (*folder / "session.sock").string();
}

}  // namespace kit
