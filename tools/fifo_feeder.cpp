#include "fifo_feeder.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <system_error>
#include <utility>

#include "host/unique_fd.h"

namespace tools {

namespace {
constexpr int kLookMs = 20;  // how often it is looked whether it is over
}  // namespace

FifoFeeder::FifoFeeder(std::filesystem::path path, std::function<std::string()> next)
    : mPath(std::move(path)), mNext(std::move(next)) {
    std::error_code ignored;
    std::filesystem::remove(mPath, ignored);
    if (mkfifo(mPath.c_str(), 0600) == 0) mThread = std::thread([this] { feed(); });
}

FifoFeeder::~FifoFeeder() {
    mIsOver = true;
    if (mThread.joinable()) mThread.join();
    std::error_code ignored;
    std::filesystem::remove(mPath, ignored);
}

int FifoFeeder::openForReader() const {
    while (!mIsOver) {
        const int fd = open(mPath.c_str(), O_WRONLY | O_NONBLOCK | O_CLOEXEC);
        if (fd >= 0 || errno != ENXIO) return fd;
        usleep(kLookMs * 1000);
    }
    return -1;
}

bool FifoFeeder::writeAll(int fd, const std::string& bytes) const {
    for (size_t done = 0; done < bytes.size();) {
        pollfd entry = {fd, POLLOUT, 0};
        if (mIsOver) return false;
        if (poll(&entry, 1, kLookMs) <= 0) continue;
        const ssize_t written = write(fd, bytes.data() + done, bytes.size() - done);
        if (written < 0 && errno != EAGAIN && errno != EINTR) return false;
        if (written > 0) done += static_cast<size_t>(written);
    }
    return true;
}

void FifoFeeder::feed() const {
    const host::UniqueFd fd(openForReader());
    while (fd.isValid() && writeAll(fd.get(), mNext())) {
    }
}

}  // namespace tools
