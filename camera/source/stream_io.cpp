#include "source/stream_io.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <system_error>
#include <utility>

namespace camera {

namespace {
constexpr int kBufferBytes = 1 << 16;
}  // namespace

std::unique_ptr<StreamIo> StreamIo::open(const std::string& name, const StopSignal& stop,
                                         std::string& problem) {
    host::UniqueFd fd;
    if (name != "-") {
        fd.reset(::open(name.c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC));
        if (!fd.isValid()) {
            problem = std::generic_category().message(errno);
            return nullptr;
        }
    }
    std::unique_ptr<StreamIo> io(new StreamIo(std::move(fd), stop));
    if (io->mContext != nullptr) return io;
    problem = "memory is short";
    return nullptr;
}

StreamIo::StreamIo(host::UniqueFd owned, const StopSignal& stop)
    : mOwned(std::move(owned)), mStop(stop) {
    auto* const buffer = static_cast<unsigned char*>(av_malloc(kBufferBytes));
    if (buffer == nullptr) return;
    mContext = avio_alloc_context(buffer, kBufferBytes, 0, this, read, nullptr, nullptr);
    if (mContext == nullptr) av_free(buffer);
}

StreamIo::~StreamIo() {
    if (mContext != nullptr) av_freep(&mContext->buffer);  // which need not be the first one
    avio_context_free(&mContext);
}

void StreamIo::tellAfter(std::chrono::milliseconds patience, std::function<void()> onStalled) {
    mPatience = patience;
    mOnStalled = std::move(onStalled);
}

/** 0 when there is something to read. */
int StreamIo::wait() {
    const int fd = isStandardInput() ? STDIN_FILENO : mOwned.get();
    auto deadline = mOnStalled ? StopSignal::Clock::now() + mPatience : mDeadline;
    for (;;) {
        // A FIFO without a writer yet is at no end, and neither to be read.
        const StopSignal::Woken woken = mStop.waitToRead(fd, deadline);
        if (woken == StopSignal::Woken::READY) return 0;
        if (woken == StopSignal::Woken::STOPPED) return AVERROR_EXIT;
        if (!mOnStalled) return AVERROR(ETIMEDOUT);
        mOnStalled();
        deadline = StopSignal::Clock::time_point::max();
    }
}

int StreamIo::read(void* self, uint8_t* to, int size) {
    auto* const io = static_cast<StreamIo*>(self);
    const int fd = io->isStandardInput() ? STDIN_FILENO : io->mOwned.get();
    for (;;) {
        if (const int error = io->wait(); error != 0) return error;
        const ssize_t got = ::read(fd, to, static_cast<size_t>(size));
        if (got > 0) return static_cast<int>(got);
        if (got == 0) return AVERROR_EOF;
        if (errno != EAGAIN && errno != EINTR) return AVERROR(errno);
    }
}

}  // namespace camera
