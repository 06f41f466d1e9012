#include "bare_road.h"

#include <err.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <condition_variable>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <deque>
#include <mutex>
#include <thread>
#include <vector>

namespace bench {

namespace {

// What a known buffer's request and result have: a header of 16 bytes and their fields.
constexpr size_t kRequestBytes = 16 + 16 + 19 + 4 + 19;
constexpr size_t kResultBytes = 16 + 4 + 4 + 8 + 4 + 4 + 19 + 8 + 40 + 19 + 4;
constexpr size_t kAnswerBytes = 20;

bool sendBytes(int socket, size_t size, int fd = -1) {
    std::array<char, kResultBytes> bytes = {};
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

/** False at the end. A descriptor that comes is closed, as who gets a result has to. */
bool receiveBytes(int socket, size_t size) {
    std::array<char, kResultBytes> bytes;
    alignas(cmsghdr) std::array<char, CMSG_SPACE(sizeof(int))> control;
    iovec part = {bytes.data(), bytes.size()};
    msghdr message = {};
    message.msg_iov = &part;
    message.msg_iovlen = 1;
    message.msg_control = control.data();
    message.msg_controllen = control.size();
    const ssize_t received = recvmsg(socket, &message, MSG_CMSG_CLOEXEC);
    const cmsghdr* const header = CMSG_FIRSTHDR(&message);
    if (header != nullptr) {
        int fd = -1;
        memcpy(&fd, CMSG_DATA(header), sizeof(fd));
        close(fd);
    }
    return received == static_cast<ssize_t>(size);
}

/** The other process: one thread takes requests, and another sends the results. */
class BareProvider {
public:
    BareProvider(int requests, int results)
        : mRequests(requests), mResults(results), mThread([this] { sendResults(); }) {}

    void serve() {
        while (receiveBytes(mRequests, kRequestBytes)) {
            {
                const std::lock_guard<std::mutex> lock(mMutex);
                mQueue.push_back(dup(STDERR_FILENO));
                mChanged.notify_all();
            }
            if (!sendBytes(mRequests, kAnswerBytes)) break;
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
            const bool sent = sendBytes(mResults, kResultBytes, fd);
            close(fd);
            if (!sent || !receiveBytes(mResults, kAnswerBytes)) return;
        }
    }

    const int mRequests;
    const int mResults;
    std::mutex mMutex;
    std::condition_variable mChanged;
    std::deque<int> mQueue;  // guarded by mMutex
    std::thread mThread;
};

}  // namespace

BareRoad::BareRoad(uint32_t inFlight) : mInFlight(inFlight) {
    int requests[2];
    int results[2];
    if (socketpair(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0, requests) != 0 ||
        socketpair(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0, results) != 0) {
        err(EXIT_FAILURE, "no sockets for the bare road");
    }
    mRequests.reset(requests[0]);
    mResults.reset(results[0]);
    const host::UniqueFd theirRequests(requests[1]);
    const host::UniqueFd theirResults(results[1]);
    mProvider = fork();
    if (mProvider != 0) return;
    prctl(PR_SET_PDEATHSIG, SIGKILL);
    mRequests.reset();
    mResults.reset();
    BareProvider(theirRequests.get(), theirResults.get()).serve();
    _exit(EXIT_SUCCESS);
}

BareRoad::~BareRoad() {
    mRequests.reset();
    mResults.reset();
    if (mProvider > 0) waitpid(mProvider, nullptr, 0);
}

bool BareRoad::run(uint32_t frames) {
    const auto ask = [this] {
        return sendBytes(mRequests.get(), kRequestBytes) &&
               receiveBytes(mRequests.get(), kAnswerBytes);
    };
    uint32_t asked = 0;
    while (asked < std::min(mInFlight, frames)) {
        if (!ask()) return false;
        ++asked;
    }
    for (uint32_t came = 0; came < frames; ++came) {
        if (!receiveBytes(mResults.get(), kResultBytes)) return false;
        if (asked < frames && !ask()) return false;
        ++asked;
        if (!sendBytes(mResults.get(), kAnswerBytes)) return false;
    }
    return true;
}

}  // namespace bench
