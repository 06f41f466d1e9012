// A client in a process of its own, to be killed; and a provider that a silent client tries to
// starve.
//
//   client-probe stream SOCKET   asks for frames until it is killed; says "1" after the first, and
//                                goes on when it is told to by a byte
//   client-probe connect SOCKET  connects again and again, when it is told to by a byte
//   client-probe starve FOLDER   0 when a client that never reads takes nothing from the others
//
// Exits with 1 and a line when something does not hold.

#include <sys/resource.h>
#include <sys/socket.h>
#include <unistd.h>

#include <condition_variable>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <iostream>
#include <mutex>
#include <string>
#include <utility>

#include "FDSession.h"
#include "frame.h"
#include "host/accepted.h"
#include "host/buffer.h"
#include "host/channel.h"
#include "host/log.h"
#include "host/unique_fd.h"
#include "raw_socket.h"
#include "records.h"
#include "src/socket.h"

namespace {

using namespace vendor::zoru::zoruprovider::fdstream::V1_0;                  // NOLINT
using namespace vendor::zoru::zoruprovider::fdstream::V1_0::implementation;  // NOLINT
using android::hardware::hidl_vec;

[[noreturn]] void fail(const std::string& what) {
    fprintf(stderr, "client-probe: %s\n", what.c_str());
    _exit(1);
}

constexpr kit::FrameSize kSize = {64, 32};

/** Keeps one request under way in a buffer whose id no earlier client used. */
class Streamer : public IFDSessionCallback {
public:
    explicit Streamer(sp<IFDSession> session)
        : mSession(std::move(session)),
          mBuffer(kit::allocate(kSize)),
          mBufferId(static_cast<uint64_t>(getpid())) {}

    bool start() {
        return host::isAccepted(mSession->setCallback(this)) &&
               host::isAccepted(mSession->configure(kit::configurationOf(kSize))) &&
               submit(mBuffer.handle());
    }
    bool submit(const native_handle_t* handle = nullptr) {
        return host::isAccepted(
            mSession->processCaptureRequest(kit::requestFor(0, mBufferId, handle)));
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
        if (mine > 1) submit();  // from inside, as clients do
        return {};
    }
    Return<void> notify(const hidl_vec<FDNotifyMsg>&) override { return {}; }

private:
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
    std::cout << 1 << std::endl;
    char byte = 0;
    if (read(STDIN_FILENO, &byte, 1) != 1) return 1;
    streamer->submit();
    pause();
    return 0;
}

int connectAgainAndAgain(const std::string& path) {
    char byte = 0;
    if (read(STDIN_FILENO, &byte, 1) != 1) return 1;
    for (int i = 0; i < 500; ++i)
        kit::connectRaw(kit::rawSocket().get(), path);
    return 0;
}

/** Sets a callback at whose other end nobody ever reads. */
void connectSilentClient(int connection, const std::string& path, int callback) {
    struct {
        host::detail::Header header = {host::detail::Header::CALL, 1, 1, 1};
        bool isThere = true;
    } call;
    char answer[64];
    if (!kit::connectRaw(connection, path) ||
        !kit::sendRaw(connection, &call, sizeof(call.header) + sizeof(call.isThere), {callback}) ||
        recv(connection, answer, sizeof(answer), 0) <= 0) {
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
    const host::UniqueFd connection = kit::rawSocket();
    auto [unread, handedOver] = kit::socketPair();
    connectSilentClient(connection.get(), path, handedOver.get());
    handedOver.reset();

    const host::Buffer buffer = kit::allocate(kSize);
    const CaptureResult result = kit::resultFor(kit::requestFor(0, 0, buffer.handle()));
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
        session->sendCaptureResult(kit::resultFor(request));
        if (++served == 1) {
            streamer->waitForResults(1);
            streamer->submit();
        }
    }
    streamer->waitForResults(kFrames);
    if (!host::isAccepted(session->getInterface()->setCallback(nullptr)))
        fail("the session is gone");
    return 0;
}

}  // namespace

int main(int argc, char** argv) {
    if (argc != 3) return 2;
    host::setStderrLogPriority(7);
    const std::string mode = argv[1];
    if (mode == "stream") return stream(argv[2]);
    return mode == "connect" ? connectAgainAndAgain(argv[2]) : starve(argv[2]);
}
