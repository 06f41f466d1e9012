#include "output_file.h"

#include <err.h>
#include <fcntl.h>
#include <poll.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstddef>
#include <filesystem>
#include <system_error>
#include <utility>

namespace tools {

namespace {

namespace fs = std::filesystem;

/** Between two looks at whether to go on waiting. */
constexpr int kLookMs = 50;

}  // namespace

OutputFile::OutputFile(std::string path, std::function<bool()> interrupted, Reader reader)
    : mPath(std::move(path)), mName(mPath), mInterrupted(std::move(interrupted)), mReader(reader) {}

OutputFile::~OutputFile() {
    if (isPart() && !mHasBytes) unlink(mName.c_str());
}

bool OutputFile::open() {
    if (mPath == "-") {
        mPath = mName = "standard output";
        mFd.reset(fcntl(STDOUT_FILENO, F_DUPFD_CLOEXEC, 0));
        return mFd.isValid() || fail(errno);
    }
    struct stat status = {};
    const bool exists = stat(mPath.c_str(), &status) == 0;
    return exists && !S_ISREG(status.st_mode) ? openPipe() : openPart();
}

bool OutputFile::openPart() {
    // The file that a link leads to is written, not a file in the link's place.
    std::error_code error;
    if (fs::is_symlink(mPath, error)) mPath = fs::weakly_canonical(mPath, error);
    if (access(mPath.c_str(), W_OK) != 0 && errno != ENOENT) return fail(errno);
    mName = mPath + ".part";
    mFd.reset(::open(mName.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0666));
    return mFd.isValid() || fail(errno);
}

bool OutputFile::openPipe() {
    // Without O_NONBLOCK a pipe that nobody reads yet could not be interrupted.
    const auto tryOpen = [&] {
        mFd.reset(::open(mPath.c_str(), O_WRONLY | O_NONBLOCK | O_NOCTTY | O_CLOEXEC));
        return mFd.isValid();
    };
    while (!tryOpen()) {
        if (errno != ENXIO) return fail(errno);
        if (mInterrupted()) return fail(EINTR);
        poll(nullptr, 0, kLookMs);
    }
    return true;
}

bool OutputFile::waitForReader() {
    pollfd entry = {mFd.get(), POLLOUT, 0};
    while (poll(&entry, 1, kLookMs) == 0) {
        if (mInterrupted()) return fail(EINTR);
    }
    return true;
}

bool OutputFile::write(std::string_view bytes) {
    while (!mBroken && !bytes.empty()) {
        // A pipe with room takes this many bytes at once.
        if (!isPart() && !waitForReader()) break;
        const size_t most = isPart() ? bytes.size() : std::min<size_t>(bytes.size(), PIPE_BUF);
        const ssize_t written = ::write(mFd.get(), bytes.data(), most);
        if (written < 0 && errno != EINTR && errno != EAGAIN) return fail(errno);
        bytes.remove_prefix(static_cast<size_t>(std::max<ssize_t>(written, 0)));
        mHasBytes |= written > 0;
    }
    return !mBroken;
}

bool OutputFile::finish() {
    if (mBroken) return false;
    // A disk that is elsewhere may tell of its trouble only now.
    if (isPart() && (close(mFd.release()) != 0 || rename(mName.c_str(), mPath.c_str()) != 0))
        return fail(errno);
    mName = mPath;
    return true;
}

bool OutputFile::fail(int error) {
    mBroken = true;
    mHasNoReader = error == EPIPE && mReader == Reader::MayLeave;
    if (mHasNoReader) return false;
    errno = error;
    warn("%s cannot be written", mName.c_str());
    return false;
}

}  // namespace tools
