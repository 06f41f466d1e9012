#include "roads.h"

#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <future>
#include <tuple>

#include "host/unique_fd.h"
#include "raw_socket.h"
#include "session.h"
#include "src/record_fields.h"
#include "src/socket.h"

namespace bench {

namespace {

template <typename... Values>
size_t messageSize(const Values&... values) {
    host::Outgoing out;
    host::Writer writer(out);
    writer(values...);
    return sizeof(host::detail::Header) + out.bytes.size();
}

/** Room for one message and a descriptor with it. */
struct Message {
    explicit Message(size_t size) : part{bytes.data(), size}, header() {
        header.msg_iov = &part;
        header.msg_iovlen = 1;
        header.msg_control = control.data();
        header.msg_controllen = control.size();
    }
    Message(const Message&) = delete;
    Message& operator=(const Message&) = delete;

    std::array<char, 256> bytes;
    alignas(cmsghdr) std::array<char, CMSG_SPACE(sizeof(int))> control;
    iovec part;
    msghdr header;
};

bool sendBytes(int socket, size_t size, int fd = -1) {
    Message message(size);
    message.bytes.fill(0);
    if (fd >= 0) {
        cmsghdr* const first = CMSG_FIRSTHDR(&message.header);
        first->cmsg_level = SOL_SOCKET;
        first->cmsg_type = SCM_RIGHTS;
        first->cmsg_len = CMSG_LEN(sizeof(int));
        memcpy(CMSG_DATA(first), &fd, sizeof(fd));
    } else {
        message.header.msg_controllen = 0;
    }
    return sendmsg(socket, &message.header, MSG_NOSIGNAL) == static_cast<ssize_t>(size);
}

/** False at the end, or for another message. Closes a descriptor, as who gets a result has to. */
bool receiveBytes(int socket, size_t size, bool withDescriptor = false) {
    Message message(sizeof(Message::bytes));
    ssize_t received = -1;
    do {
        received = recvmsg(socket, &message.header, MSG_CMSG_CLOEXEC);
    } while (received < 0 && errno == EINTR);  // with a time-out, stopping the process does that
    if (received < 0) return false;
    const cmsghdr* const first = CMSG_FIRSTHDR(&message.header);
    if (first != nullptr) {
        int fd = -1;
        memcpy(&fd, CMSG_DATA(first), sizeof(fd));
        close(fd);
    }
    return received == static_cast<ssize_t>(size) && (first != nullptr) == withDescriptor;
}

/** What both processes know. */
struct Shared {
    // Sizes of a known buffer's messages, as the real road has them.
    size_t request = messageSize(kit::requestFor(1, 1));
    size_t accepted = messageSize(Status::OK);
    size_t result = 0;
    size_t received = messageSize();
    std::vector<host::Buffer> frames;  // both have them mapped; none without pictures

    Shared(size_t count, bool pictures) {
        const host::Buffer buffer = kit::allocate(kTiny);
        const CaptureResult whole = kit::resultFor(kit::requestFor(1, 1, buffer.handle()));
        result = messageSize(android::hardware::hidl_vec<CaptureResult>{whole});
        while (pictures && frames.size() < count)
            frames.push_back(kit::allocate(k720p));
    }
    uint8_t* frameOf(uint32_t number) const { return frames[number % frames.size()].bytes(); }
};

/** What the other process does: one thread takes requests, and another sends the results. */
void serve(const Shared& shared, int requests, int results) {
    Worker<int> sender([&](int fd) {
        if (sendBytes(results, shared.result, fd)) receiveBytes(results, shared.received);
        close(fd);
    });
    MarkedFrame frame;
    for (uint32_t i = 0; receiveBytes(requests, shared.request); ++i) {
        if (!shared.frames.empty()) memcpy(shared.frameOf(i), frame.numbered(i), frame.size());
        sender.push(dup(STDERR_FILENO));
        if (!sendBytes(requests, shared.accepted)) return;
    }
}

class BareRoad : public Road {
public:
    BareRoad(uint32_t inFlight, bool pictures) : mInFlight(inFlight), mShared(inFlight, pictures) {
        host::UniqueFd theirRequests;
        host::UniqueFd theirResults;
        std::tie(mRequests, theirRequests) = kit::socketPair();
        std::tie(mResults, theirResults) = kit::socketPair();
        expect(mRequests.isValid() && mResults.isValid(), "no sockets for the bare road");
        // A message that does not come must not hold the bench up; requests come when they come.
        const timeval patience = {20, 0};
        for (const int socket : {mRequests.get(), mResults.get(), theirResults.get()})
            setsockopt(socket, SOL_SOCKET, SO_RCVTIMEO, &patience, sizeof(patience));
        mProvider = fork();
        expect(mProvider >= 0, "no process for the bare road");
        if (mProvider > 0) return;
        prctl(PR_SET_PDEATHSIG, SIGKILL);
        mRequests.reset();
        mResults.reset();
        serve(mShared, theirRequests.get(), theirResults.get());
        _exit(EXIT_SUCCESS);
    }
    ~BareRoad() override {
        mRequests.reset();
        mResults.reset();
        waitpid(mProvider, nullptr, 0);
    }

    pid_t provider() const override { return mProvider; }

    void run(uint32_t frames) override {
        uint32_t asked = 0;
        for (; asked < std::min(mInFlight, frames); ++asked)
            ask();
        for (uint32_t came = 0; came < frames; ++came) {
            expect(receiveBytes(mResults.get(), mShared.result, true) &&
                   isExpected(came + 1 == frames));
            if (asked++ < frames) ask();
            expect(sendBytes(mResults.get(), mShared.received));
        }
    }

    /** A thread waits for the result, as the client of the real road has one for its callback. */
    double latencyOfOne(Clock::time_point askAt) override {
        auto arrival = std::async(std::launch::async, [&] {
            expect(receiveBytes(mResults.get(), mShared.result, true));
            const Clock::time_point now = Clock::now();
            expect(sendBytes(mResults.get(), mShared.received));
            return now;
        });
        std::this_thread::sleep_until(askAt);
        const Clock::time_point start = Clock::now();
        ask();
        return microsecondsOf(arrival.get() - start);
    }

private:
    void ask() {
        expect(sendBytes(mRequests.get(), mShared.request) &&
               receiveBytes(mRequests.get(), mShared.accepted));
    }
    bool isExpected(bool everyByte) {
        const uint32_t number = mCame++;
        return mShared.frames.empty() || mExpected.isIn(mShared.frameOf(number), number, everyByte);
    }

    const uint32_t mInFlight;
    const Shared mShared;
    MarkedFrame mExpected;
    uint32_t mCame = 0;
    host::UniqueFd mRequests;
    host::UniqueFd mResults;
    pid_t mProvider = -1;
};

}  // namespace

std::unique_ptr<Road> startBareRoad(uint32_t inFlight, bool pictures) {
    return std::make_unique<BareRoad>(inFlight, pictures);
}

}  // namespace bench
