#include "bare_road.h"

#include <err.h>
#include <sys/mman.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <chrono>
#include <condition_variable>
#include <csignal>
#include <cstddef>
#include <cstdlib>
#include <cstring>
#include <deque>
#include <future>
#include <memory>
#include <mutex>
#include <optional>
#include <thread>

#include "records.h"
#include "transport/src/record_fields.h"
#include "transport/src/socket.h"

namespace bench {

namespace {

using Clock = std::chrono::steady_clock;

template <typename... Values>
size_t messageSize(const Values&... values) {
    host::Outgoing out;
    host::Writer writer(out);
    writer(values...);
    return sizeof(host::detail::Header) + out.bytes.size();
}

constexpr size_t kMostBytes = 256;

bool sendBytes(int socket, size_t size, int fd = -1) {
    std::array<char, kMostBytes> bytes = {};
    alignas(cmsghdr) std::array<char, CMSG_SPACE(sizeof(int))> control = {};
    iovec part = {bytes.data(), size};
    msghdr message = {};
    message.msg_iov = &part;
    message.msg_iovlen = 1;
    if (fd >= 0) {
        message.msg_control = control.data();
        message.msg_controllen = control.size();
        cmsghdr* const header = CMSG_FIRSTHDR(&message);
        header->cmsg_level = SOL_SOCKET;
        header->cmsg_type = SCM_RIGHTS;
        header->cmsg_len = CMSG_LEN(sizeof(int));
        memcpy(CMSG_DATA(header), &fd, sizeof(fd));
    }
    return sendmsg(socket, &message, MSG_NOSIGNAL) == static_cast<ssize_t>(size);
}

/** False at the end, or for another message. A descriptor is closed, as who gets a result has to.
 */
bool receiveBytes(int socket, size_t size, bool withDescriptor = false) {
    std::array<char, kMostBytes> bytes;
    alignas(cmsghdr) std::array<char, CMSG_SPACE(sizeof(int))> control;
    iovec part = {bytes.data(), bytes.size()};
    msghdr message = {};
    message.msg_iov = &part;
    message.msg_iovlen = 1;
    message.msg_control = control.data();
    message.msg_controllen = control.size();
    ssize_t received = -1;
    do {
        received = recvmsg(socket, &message, MSG_CMSG_CLOEXEC);
    } while (received < 0 && errno == EINTR);  // with a time-out, stopping the process does that
    const cmsghdr* const header = CMSG_FIRSTHDR(&message);
    if (header != nullptr) {
        int fd = -1;
        memcpy(&fd, CMSG_DATA(header), sizeof(fd));
        close(fd);
    }
    return received == static_cast<ssize_t>(size) && (header != nullptr) == withDescriptor;
}

/** A message that does not come must not hold the bench up; requests come when they come. */
void waitNoLonger(int socket) {
    const timeval patience = {20, 0};
    setsockopt(socket, SOL_SOCKET, SO_RCVTIMEO, &patience, sizeof(patience));
}

}  // namespace

/** The other process: one thread takes requests, and another sends the results. */
class BareRoad::Provider {
public:
    Provider(const Sizes& sizes, const SharedFrames* frames, int requests, int results)
        : mSizes(sizes), mFrames(frames), mRequests(requests), mResults(results), mThread([this] {
              sendResults();
          }) {}

    void serve() {
        MarkedFrame frame;
        for (uint32_t i = 0; receiveBytes(mRequests, mSizes.request); ++i) {
            if (mFrames != nullptr) memcpy(mFrames->of(i), frame.numbered(i), frame.size());
            {
                const std::lock_guard<std::mutex> lock(mMutex);
                mQueue.push_back(dup(STDERR_FILENO));
                mChanged.notify_all();
            }
            if (!sendBytes(mRequests, mSizes.accepted)) break;
        }
        {
            const std::lock_guard<std::mutex> lock(mMutex);
            mQueue.push_back(-1);
            mChanged.notify_all();
        }
        mThread.join();
    }

private:
    void sendResults() {
        for (;;) {
            int fd = -1;
            {
                std::unique_lock<std::mutex> lock(mMutex);
                mChanged.wait(lock, [this] { return !mQueue.empty(); });
                fd = mQueue.front();
                mQueue.pop_front();
            }
            if (fd < 0) return;
            const bool sent = sendBytes(mResults, mSizes.result, fd);
            close(fd);
            if (!sent || !receiveBytes(mResults, mSizes.received)) return;
        }
    }

    const Sizes mSizes;
    const SharedFrames* const mFrames;
    const int mRequests;
    const int mResults;
    std::mutex mMutex;
    std::condition_variable mChanged;
    std::deque<int> mQueue;  // guarded by mMutex
    std::thread mThread;
};

BareRoad::Sizes BareRoad::sizesOfMessages() {
    const FrameBuffer frame(kTiny, kTiny.width);
    const android::hardware::hidl_vec<CaptureResult> results = {
        resultFor(requestFor(1, 1, frame.memory.handle()))};
    return {messageSize(requestFor(1, 1)), messageSize(Status::OK), messageSize(results),
            messageSize()};
}

SharedFrames::SharedFrames(uint32_t count)
    : mCount(count),
      mBytes(static_cast<uint8_t*>(mmap(nullptr, count * kFrameBytes, PROT_READ | PROT_WRITE,
                                        MAP_SHARED | MAP_ANONYMOUS, -1, 0))) {
    if (mBytes == MAP_FAILED) err(EXIT_FAILURE, "no memory for %u frames", count);
}

SharedFrames::~SharedFrames() {
    munmap(mBytes, mCount * kFrameBytes);
}

BareRoad::BareRoad(uint32_t inFlight, bool pictures)
    : mSizes(sizesOfMessages()),
      mInFlight(inFlight),
      mFrames(pictures ? std::make_unique<SharedFrames>(inFlight) : nullptr) {
    int requests[2];
    int results[2];
    if (socketpair(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0, requests) != 0 ||
        socketpair(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0, results) != 0) {
        err(EXIT_FAILURE, "no sockets for the bare road");
    }
    mRequests.reset(requests[0]);
    mResults.reset(results[0]);
    for (const int socket : {requests[0], results[0], results[1]})
        waitNoLonger(socket);
    const host::UniqueFd theirRequests(requests[1]);
    const host::UniqueFd theirResults(results[1]);
    mProvider = fork();
    if (mProvider < 0) err(EXIT_FAILURE, "no process for the bare road");
    if (mProvider > 0) return;
    prctl(PR_SET_PDEATHSIG, SIGKILL);
    mRequests.reset();
    mResults.reset();
    Provider(mSizes, mFrames.get(), theirRequests.get(), theirResults.get()).serve();
    _exit(EXIT_SUCCESS);
}

BareRoad::~BareRoad() {
    mRequests.reset();
    mResults.reset();
    if (mProvider > 0) waitpid(mProvider, nullptr, 0);
}

bool BareRoad::run(uint32_t frames) {
    uint32_t asked = 0;
    const auto askUnlessAll = [&] {
        if (asked == frames) return true;
        ++asked;
        return sendBytes(mRequests.get(), mSizes.request) &&
               receiveBytes(mRequests.get(), mSizes.accepted);
    };
    for (uint32_t i = 0; i < mInFlight; ++i) {
        if (!askUnlessAll()) return false;
    }
    for (uint32_t came = 0; came < frames; ++came) {
        if (!receiveBytes(mResults.get(), mSizes.result, true)) return false;
        if (!isExpected(came + 1 == frames) || !askUnlessAll()) return false;
        if (!sendBytes(mResults.get(), mSizes.received)) return false;
    }
    return true;
}

bool BareRoad::isExpected(bool everyByte) {
    const uint32_t number = mCame++;
    return mFrames == nullptr || mExpected.isIn(mFrames->of(number), number, everyByte);
}

std::optional<Clock::duration> BareRoad::latencyOfOne(Clock::time_point askAt) {
    auto arrival = std::async(std::launch::async, [&] {
        const bool came = receiveBytes(mResults.get(), mSizes.result, true);
        const Clock::time_point now = Clock::now();
        const bool answered = came && sendBytes(mResults.get(), mSizes.received);
        return answered ? std::optional(now) : std::nullopt;
    });
    std::this_thread::sleep_until(askAt);
    const Clock::time_point start = Clock::now();
    const bool asked = sendBytes(mRequests.get(), mSizes.request) &&
                       receiveBytes(mRequests.get(), mSizes.accepted);
    if (!asked) shutdown(mResults.get(), SHUT_RDWR);  // ends the wait
    const std::optional<Clock::time_point> end = arrival.get();
    return end ? std::optional(*end - start) : std::nullopt;
}

}  // namespace bench
