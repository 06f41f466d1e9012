#include "spool.h"

#include <fcntl.h>
#include <stdlib.h>
#include <unistd.h>

#include <cerrno>
#include <cstddef>
#include <cstring>
#include <filesystem>
#include <system_error>
#include <vector>

namespace tools {

namespace {

host::UniqueFd namelessFile() {
    std::error_code error;
    std::string name = std::filesystem::temp_directory_path(error) / "fdstream-clip-XXXXXX";
    host::UniqueFd file(mkostemp(name.data(), O_CLOEXEC));
    if (file.isValid()) unlink(name.c_str());
    return file;
}

ssize_t readSome(int from, std::vector<char>& into) {
    ssize_t count = -1;
    do {
        count = read(from, into.data(), into.size());
    } while (count < 0 && errno == EINTR);
    return count;
}

bool writeAll(int to, const char* bytes, size_t count) {
    while (count > 0) {
        const ssize_t written = write(to, bytes, count);
        if (written < 0 && errno == EINTR) continue;
        if (written < 0) return false;
        bytes += written;
        count -= static_cast<size_t>(written);
    }
    return true;
}

}  // namespace

host::UniqueFd spool(int from, uint64_t most, std::string& problem) {
    host::UniqueFd file = namelessFile();
    uint64_t total = 0;
    std::vector<char> piece(size_t{1} << 20);
    while (file.isValid()) {
        const ssize_t count = readSome(from, piece);
        if (count == 0) return file;
        if (count < 0) {
            problem = std::string("it cannot be read: ") + strerror(errno);
            return {};
        }
        total += static_cast<uint64_t>(count);
        if (total > most) {
            problem = "it has more than " + std::to_string(most) + " bytes";
            return {};
        }
        if (!writeAll(file.get(), piece.data(), static_cast<size_t>(count))) break;
    }
    problem = std::string("no copy of it can be kept: ") + strerror(errno);
    return {};
}

}  // namespace tools
