#include <android/hardware/camera/common/1.0/types.h>
#include <fcntl.h>
#include <hidl/Status.h>
#include <sys/eventfd.h>
#include <sys/socket.h>
#include <unistd.h>
#include <utils/StrongPointer.h>
#include <vendor/zoru/zoruprovider/fdstream/1.0/IFDSession.h>

#include <chrono>
#include <thread>
#include <utility>
#include <vector>

#include "host/accepted.h"
#include "host/channel.h"
#include "host/limits.h"
#include "host/unique_fd.h"
#include "raw_client.h"
#include "raw_socket.h"
#include "records.h"
#include "soak_clients.h"
#include "soak_raw.h"

namespace tools {

namespace {

using android::sp;
using android::hardware::hidl_vec;
using std::chrono::milliseconds;
using vendor::zoru::zoruprovider::fdstream::V1_0::FDNotifyMsg;
using vendor::zoru::zoruprovider::fdstream::V1_0::IFDSession;
using vendor::zoru::zoruprovider::fdstream::V1_0::IFDSessionCallback;
using Clock = std::chrono::steady_clock;

constexpr kit::FrameSize kSize = kSoakSizes[1];

/** Whose calls last as long as the process. */
class Deaf : public IFDSessionCallback {
public:
    template <typename T>
    using Return = android::hardware::Return<T>;

    Return<void> processCaptureResult(
        const hidl_vec<android::hardware::camera::device::V3_2::CaptureResult>& /*results*/)
        override {
        for (;;)
            pause();
    }
    Return<void> notify(const hidl_vec<FDNotifyMsg>& /*msgs*/) override {
        for (;;)
            pause();
    }
};

uint64_t freshBufferId(Random& random) {
    return uint64_t{random()} << 32 | random();
}

sp<IFDSession> connectTo(const std::string& socket) {
    std::string problem;
    return host::connect<IFDSession>(socket, problem);
}

/** Hands over a callback that nobody reads from. False when that is not taken. */
bool setUnread(int connection, const std::string& socket, int callback) {
    char answer[64];
    return kit::connectRaw(connection, socket) &&
           sendCall(connection, {kit::rawCallback(), {callback}}) &&
           recv(connection, answer, sizeof(answer), 0) > 0;
}

/** Makes a request for each of its buffers, and for those that are known again and again. */
void ask(IFDSession& session, const std::vector<host::Buffer>& buffers, uint64_t firstId,
         uint32_t requests) {
    for (uint32_t i = 0; i < requests; ++i) {
        const uint32_t place = i % static_cast<uint32_t>(buffers.size());
        const auto answer = session.processCaptureRequest(
            kit::requestFor(i, firstId + place, buffers[place].handle()));
        if (!answer.isOk()) return;
    }
}

/** Hands over a callback that is never answered or never read, and makes requests. */
void hang(const std::string& socket, Random& random, milliseconds life) {
    const sp<IFDSession> session = connectTo(socket);
    if (session == nullptr) return;
    const host::UniqueFd connection = kit::rawSocket();
    auto [unread, handedOver] = kit::socketPair();
    const bool reads = random() % 2 == 0;
    const bool taken = reads ? host::isAccepted(session->setCallback(new Deaf))
                             : setUnread(connection.get(), socket, handedOver.get());
    handedOver.reset();
    if (!taken || !host::isAccepted(session->configure(kit::configurationOf(kSize)))) return;
    std::vector<host::Buffer> buffers;
    for (uint32_t i = pick(random, 1, 4); i > 0; --i)
        buffers.push_back(kit::allocate(kSize));
    ask(*session, buffers, freshBufferId(random), pick(random, 1, 40));
    std::this_thread::sleep_for(life);
}

/** What is sent by who makes noise: a request that is not quite one, or nothing like it. */
RawCall noiseOf(Random& random, const host::Buffer& buffer, const std::vector<int>& foreign) {
    RawCall call = rawRequest(freshBufferId(random), buffer.handle());
    const uint32_t which = pick(random, 0, 5);
    if (which == 0) {
        call.bytes.resize(random() % call.bytes.size());
    } else if (which == 1) {
        const uint32_t bit = pick(random, 0, static_cast<uint32_t>(8 * call.bytes.size()) - 1);
        call.bytes[bit / 8] ^= static_cast<uint8_t>(1U << bit % 8);
    } else if (which == 2) {
        call.fds[0] = foreign[random() % foreign.size()];
    } else if (which == 3) {
        call.fds.insert(call.fds.end(), pick(random, 1, 100), foreign[random() % foreign.size()]);
    } else if (which == 4) {
        call = {kit::rawCallback(), {foreign[random() % foreign.size()]}};
    } else {
        call.bytes.resize(pick(random, 0, host::kMaxMessageBytes + 100));
        for (uint8_t& byte : call.bytes)
            byte = static_cast<uint8_t>(random());
    }
    return call;
}

}  // namespace

bool beStaying(const std::string& socket, Random& random) {
    hang(socket, random, std::chrono::hours(1));
    return true;
}

bool beHanging(const std::string& socket, Random& random) {
    // Some longer than anybody waits.
    hang(socket, random, milliseconds(pick(random, 0, random() % 4 == 0 ? 1300 : 300)));
    return true;
}

bool beFlooding(const std::string& socket, Random& random) {
    const auto end = Clock::now() + milliseconds(pick(random, 100, 1200));
    const sp<IFDSession> session = connectTo(socket);
    if (session == nullptr) return true;
    if (!host::isAccepted(session->configure(kit::configurationOf(kSize)))) return true;
    const host::Buffer buffer = kit::allocate(kSize);
    const bool everNew = random() % 4 == 0;  // each request brings a buffer that has to be imported
    uint64_t bufferId = freshBufferId(random);
    while (Clock::now() < end) {
        const host::UniqueFd connection = kit::rawSocket();
        if (!kit::connectRaw(connection.get(), socket)) return true;
        while (Clock::now() < end &&
               sendCall(connection.get(), rawRequest(bufferId, buffer.handle())))
            bufferId += everNew ? 1 : 0;
    }
    return true;
}

bool beNoisy(const std::string& socket, Random& random) {
    const host::Buffer buffer = kit::allocate(kSize);
    const host::UniqueFd folder(open("/", O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    const host::UniqueFd device(open("/dev/null", O_RDWR | O_CLOEXEC));
    const host::UniqueFd event(eventfd(0, EFD_CLOEXEC));
    const auto [stream, otherStream] = kit::socketPair(SOCK_STREAM);
    const auto [channel, otherChannel] = kit::socketPair();
    const std::vector<int> foreign = {folder.get(), device.get(), event.get(), stream.get(),
                                      channel.get()};
    for (uint32_t left = pick(random, 5, 80); left > 0; --left) {
        const host::UniqueFd connection = kit::rawSocket();
        if (!kit::connectRaw(connection.get(), socket)) return true;
        sendCall(connection.get(), noiseOf(random, buffer, foreign));
        char answer[256];
        if (random() % 2 == 0) recv(connection.get(), answer, sizeof(answer), 0);
    }
    return true;
}

}  // namespace tools
