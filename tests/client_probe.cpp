// A client in a process of its own, to be killed; and a provider that a silent client tries to
// starve.
//
//   client-probe stream SOCKET   asks for frames until it is killed; says "1" after the first, and
//                                goes on when it is told to by a byte
//   client-probe starve FOLDER   0 when a client that never reads takes nothing from the others
//
// Exits with 1 and a line when something does not hold.

#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <condition_variable>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <mutex>
#include <random>
#include <string>

#include "FDSession.h"
#include "host/buffer.h"
#include "host/channel.h"
#include "host/log.h"
#include "host/unique_fd.h"

namespace {

using namespace vendor::zoru::zoruprovider::fdstream::V1_0;                  // NOLINT
using namespace vendor::zoru::zoruprovider::fdstream::V1_0::implementation;  // NOLINT
using android::hardware::hidl_vec;

[[noreturn]] void fail(const std::string& what) {
    fprintf(stderr, "client-probe: %s\n", what.c_str());
    _exit(1);
}

bool accepted(const Return<Status>& answer) {
    return answer.isOk() && static_cast<Status>(answer) == Status::OK;
}

host::Buffer allocate() {
    host::BufferGeometry geometry;
    geometry.width = 64;
    geometry.height = 32;
    return std::move(*host::Buffer::allocate(geometry));
}

/** Keeps one request under way in a buffer whose id no earlier client used. */
class Streamer : public IFDSessionCallback {
public:
    explicit Streamer(sp<IFDSession> session)
        : mSession(std::move(session)), mBuffer(allocate()), mBufferId(random64()) {}

    bool start() {
        StreamConfiguration configuration = {};
        configuration.streams.resize(1);
        configuration.streams[0].width = 64;
        configuration.streams[0].height = 32;
        configuration.streams[0].usage = 0x33;
        return accepted(mSession->setCallback(this)) &&
               accepted(mSession->configure(configuration)) && submit(mBuffer.handle());
    }
    bool submit(const native_handle_t* handle) {
        CaptureRequest request = {};
        request.outputBuffers.resize(1);
        request.outputBuffers[0].bufferId = mBufferId;
        request.outputBuffers[0].buffer = handle;
        return accepted(mSession->processCaptureRequest(request));
    }
    void waitForResults(uint32_t count) {
        std::unique_lock<std::mutex> lock(mMutex);
        mCame.wait(lock, [&] { return mResults >= count; });
    }

    Return<void> processCaptureResult(const hidl_vec<CaptureResult>& results) override {
        // One that an earlier client asked for may still come: it is not ours.
        if (results[0].outputBuffers[0].bufferId != mBufferId) return {};
        uint32_t mine = 0;
        {
            const std::lock_guard<std::mutex> lock(mMutex);
            mine = ++mResults;
            mCame.notify_all();
        }
        if (mine > 1) submit(nullptr);  // from inside, as clients do
        return {};
    }
    Return<void> notify(const hidl_vec<FDNotifyMsg>&) override { return {}; }

private:
    static uint64_t random64() {
        std::random_device device;
        return uint64_t{device()} << 32 | device();
    }

    const sp<IFDSession> mSession;
    const host::Buffer mBuffer;
    const uint64_t mBufferId;
    std::mutex mMutex;
    std::condition_variable mCame;
    uint32_t mResults = 0;  // guarded by mMutex
};

int stream(const std::string& path) {
    std::string problem;
    const sp<IFDSession> session = host::connect<IFDSession>(path, problem);
    if (session == nullptr) fail(problem);
    const sp<Streamer> streamer = new Streamer(session);
    if (!streamer->start()) fail("the stream could not be set up");
    streamer->waitForResults(1);
    char byte = '1';
    if (write(STDOUT_FILENO, &byte, 1) != 1 || read(STDIN_FILENO, &byte, 1) != 1) return 1;
    streamer->submit(nullptr);
    pause();
    return 0;
}

/** Sets a callback at whose other end nobody ever reads; both sockets stay open. */
void connectSilentClient(const std::string& path, host::UniqueFd& connection,
                         host::UniqueFd& unread) {
    sockaddr_un address = {};
    address.sun_family = AF_UNIX;
    strncpy(address.sun_path, path.c_str(), sizeof(address.sun_path) - 1);
    connection.reset(socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0));
    int ends[2];
    if (connect(connection.get(), reinterpret_cast<sockaddr*>(&address), sizeof(address)) != 0 ||
        socketpair(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0, ends) != 0) {
        fail("the silent client cannot connect");
    }
    unread.reset(ends[0]);
    const host::UniqueFd handedOver(ends[1]);
    const uint32_t header[] = {0x464443, 1, 1, 1};
    char bytes[sizeof(header) + 1];
    memcpy(bytes, header, sizeof(header));
    bytes[sizeof(header)] = 1;
    alignas(cmsghdr) char control[CMSG_SPACE(sizeof(int))] = {};
    iovec part = {bytes, sizeof(bytes)};
    msghdr message = {};
    message.msg_iov = &part;
    message.msg_iovlen = 1;
    message.msg_control = control;
    message.msg_controllen = sizeof(control);
    cmsghdr* const first = CMSG_FIRSTHDR(&message);
    first->cmsg_level = SOL_SOCKET;
    first->cmsg_type = SCM_RIGHTS;
    first->cmsg_len = CMSG_LEN(sizeof(int));
    const int fd = handedOver.get();
    memcpy(CMSG_DATA(first), &fd, sizeof(fd));
    char answer[64];
    if (sendmsg(connection.get(), &message, 0) < 0 ||
        recv(connection.get(), answer, sizeof(answer), 0) <= 0) {
        fail("the silent client is not taken");
    }
}

int starve(const std::string& folder) {
    // Descriptors on their way count against the user, and root is exempt.
    if (geteuid() == 0 && setresuid(65534, 65534, 65534) != 0) fail("cannot become another user");
    constexpr rlim_t kSlots = 1024;
    const rlimit few = {kSlots, kSlots};
    setrlimit(RLIMIT_NOFILE, &few);

    const sp<FDSession> session = FDSession::getInstance();
    std::string problem;
    const std::string path = folder + "/socket";
    const auto server = host::Server::listen(path, session->getInterface(), problem);
    if (server == nullptr) fail(problem);
    host::UniqueFd connection;
    host::UniqueFd unread;
    connectSilentClient(path, connection, unread);

    const host::Buffer buffer = allocate();
    CaptureResult result = {};
    result.outputBuffers.resize(1);
    result.outputBuffers[0].buffer = buffer.handle();
    host::LogCapture log;
    for (rlim_t i = 0; i < 2 * kSlots; ++i) {
        session->sendCaptureResult(result);
        // Not more at a time than the queue's own duplicates may take.
        if (i % 256 == 255) {
            while (log.texts().size() <= i)
                usleep(1000);
        }
    }
    const sp<Streamer> streamer = new Streamer(host::connect<IFDSession>(path, problem));
    if (!streamer->start()) fail("the other client is starved");
    constexpr uint32_t kFrames = 100;
    for (uint32_t served = 0; served < kFrames;) {
        CaptureRequest request = {};
        if (session->getProcessCaptureRequest(request) != 0) {
            usleep(100);
            continue;
        }
        result.outputBuffers = request.outputBuffers;
        session->sendCaptureResult(result);
        if (++served == 1) {
            streamer->waitForResults(1);
            streamer->submit(nullptr);
        }
    }
    streamer->waitForResults(kFrames);
    if (!accepted(session->getInterface()->setCallback(nullptr))) fail("the session is gone");
    return 0;
}

}  // namespace

int main(int argc, char** argv) {
    if (argc != 3) return 2;
    host::setStderrLogPriority(7);
    return strcmp(argv[1], "stream") == 0 ? stream(argv[2]) : starve(argv[2]);
}
