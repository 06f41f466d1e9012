// Served channels over real sockets, and a peer that sends what it likes: packets that are nearly
// calls, descriptors of any kind, halves of closes, and answers to callbacks before they are asked.

#include <fcntl.h>
#include <poll.h>
#include <sys/eventfd.h>
#include <sys/mman.h>
#include <sys/socket.h>
#include <unistd.h>

#include <array>
#include <atomic>
#include <mutex>
#include <utility>
#include <vector>

#include "host/accepted.h"
#include "host/channel.h"
#include "raw_socket.h"
#include "records.h"
#include "src/record_fields.h"
#include "src/socket.h"
#include "support.h"
#include "temporary_folder.h"
#include "vendor/zoru/zoruprovider/fdstream/1.0/IFDSession.h"
#include "vendor/zoru/zoruprovider/fdstream/1.0/IFDSessionCallback.h"

namespace {

using namespace vendor::zoru::zoruprovider::fdstream::V1_0;  // NOLINT: the interfaces' own
using android::sp;
using android::hardware::hidl_vec;
using android::hardware::Return;
using android::hardware::Void;
using android::hardware::camera::common::V1_0::Status;
using android::hardware::camera::device::V3_2::CaptureResult;
using host::UniqueFd;
using host::detail::Header;
using kit::CaptureRequest;

/** Calls back once in each call that it accepts: until then an accepted request is counted. */
class Served : public IFDSession {
public:
    Return<Status> setCallback(const sp<IFDSessionCallback>& callback) override {
        const std::lock_guard<std::mutex> lock(mMutex);
        mCallback = callback;
        return Status::OK;
    }
    Return<Status> configure(const kit::StreamConfiguration& /*configuration*/) override {
        const sp<IFDSessionCallback> told = callback();
        if (told != nullptr) (void)told->notify({FDNotifyMsg{}}).isOk();
        return Status::OK;
    }
    Return<Status> processCaptureRequest(const CaptureRequest& request) override {
        const sp<IFDSessionCallback> told = callback();
        if (told == nullptr) return Status::ILLEGAL_ARGUMENT;
        (void)told->processCaptureResult({kit::resultFor(request)}).isOk();
        return Status::OK;
    }

private:
    sp<IFDSessionCallback> callback() {
        const std::lock_guard<std::mutex> lock(mMutex);
        return mCallback;
    }
    std::mutex mMutex;
    sp<IFDSessionCallback> mCallback;  // guarded by mMutex
};

struct GoodCallback : public IFDSessionCallback {
    Return<void> processCaptureResult(const hidl_vec<CaptureResult>& results) override {
        taken += static_cast<int>(results.size());
        return Void();
    }
    Return<void> notify(const hidl_vec<FDNotifyMsg>& /*msgs*/) override { return Void(); }
    std::atomic<int> taken{0};
};

/** What every input meets: a server, and a client that nothing may harm. */
class House {
public:
    House() {
        mServer = host::Server::listen(path, mServed, mProblem,
                                       {[this](pid_t) { ++mCame; }, [this](pid_t) { ++mWent; }});
        fuzz::expect(mServer != nullptr, mProblem.c_str());
        mGood = connect();
    }
    /** Before an input, because the fuzzer opens descriptors of its own between two. */
    void remember() { mBefore = fuzz::openDescriptors(); }
    UniqueFd connectRaw() {
        UniqueFd socket = kit::rawSocket();
        fuzz::expect(kit::connectRaw(socket.get(), path), "cannot connect");
        ++mConnections;
        return socket;
    }

    /** After an input: nothing is left, and others are served as before. */
    void expectUnharmed() {
        expectConnectionsEnd();
        // The last call of a connection that has ended may have set one.
        fuzz::expect(host::isAccepted(mServed->setCallback(nullptr)), "no answer");
        if (!host::isAccepted(mGood->configure({}))) replaceGood();
        if (++mInputs % 64 == 0) {
            fuzz::expect(isNewClientServed() || isNewClientServed() || isNewClientServed(),
                         "a new client is not served");
        }
        expectConnectionsEnd();
        fuzz::expectOpen(mBefore);
    }

    const fuzz::QuietLog quiet;
    const kit::TemporaryFolder folder;
    const std::string path = folder / "socket";
    const host::Buffer buffer = kit::allocate({16, 8});
    const UniqueFd fence{eventfd(0, EFD_CLOEXEC)};
    const UniqueFd device{open("/dev/null", O_RDWR | O_CLOEXEC)};
    const UniqueFd directory{open("/tmp", O_RDONLY | O_DIRECTORY | O_CLOEXEC)};
    const UniqueFd memory{memfd_create("any", MFD_CLOEXEC)};
    const UniqueFd stream = kit::socketPair(SOCK_STREAM).first;

private:
    sp<IFDSession> connect() {
        sp<IFDSession> client = host::connect<IFDSession>(path, mProblem);
        fuzz::expect(client != nullptr && client->ping().isOk(), "no client can connect");
        ++mConnections;
        return client;
    }
    // The bounded wait for an answer may end where the machine has too much to do: a client is not
    // served when it is not served again.
    void replaceGood() {
        mGood.clear();
        mGood = connect();
        fuzz::expect(host::isAccepted(mGood->configure({})), "another client is not served");
        expectConnectionsEnd();
        remember();
    }
    /** All but the good client's. */
    void expectConnectionsEnd() const {
        fuzz::expectSoon([this] { return mCame == mConnections && mWent + 1 == mConnections; },
                         "a connection does not end");
    }
    bool isNewClientServed() {
        const sp<IFDSession> client = connect();
        const sp<GoodCallback> callback = new GoodCallback;
        return host::isAccepted(client->setCallback(callback)) &&
               host::isAccepted(
                   client->processCaptureRequest(kit::requestFor(1, 1, buffer.handle()))) &&
               host::isAccepted(client->setCallback(nullptr)) && callback->taken == 1;
    }

    const sp<Served> mServed = new Served;
    std::string mProblem;
    std::atomic<int> mCame{0};
    std::atomic<int> mWent{0};
    std::unique_ptr<host::Server> mServer;
    sp<IFDSession> mGood;
    fuzz::Descriptors mBefore;
    int mConnections = 0;
    int mInputs = 0;
};

House& house() {
    static auto* const instance = new House;
    return *instance;
}

struct Packet {
    std::vector<uint8_t> bytes;
    std::vector<int> fds;
};

class Peer {
public:
    explicit Peer(FuzzedDataProvider& data) : mData(data) {}

    void step() {
        switch (mData.ConsumeIntegralInRange(0, 9)) {
            case 0:
                if (mSocket.isValid()) shutdown(mSocket.get(), mData.ConsumeBool());
                return;
            case 1:
                if (mData.ConsumeBool()) return mCallback.reset();
                if (mCallback.isValid()) shutdown(mCallback.get(), mData.ConsumeBool());
                return;
            case 2:
                return flood();
            default:
                return call();
        }
    }

private:
    /** Rarely, and not when the input is at its end. */
    bool mayNot() { return mData.ConsumeIntegral<uint8_t>() > 243; }

    Packet packetOf(uint32_t method) {
        host::Outgoing out;
        host::Writer writer(out);
        CaptureRequest request = kit::requestFor(1, 1, house().buffer.handle());
        native_handle_t* const fence = native_handle_create(1, 0);
        fence->data[0] = fcntl(house().fence.get(), F_DUPFD_CLOEXEC, 0);
        request.outputBuffers[0].acquireFence.setTo(fence, true);
        if (method == 1) writer(uint8_t{1});
        if (method == 2) writer(kit::configurationOf({16, 8}));
        if (method == 3) writer(request);
        Packet packet;
        if (method == 1) packet.fds = {newCallback()};
        if (method == 3) packet.fds = {house().buffer.handle()->data[0], house().fence.get()};
        addHeader(packet, {Header::CALL, method, ++mSerial, 0});
        packet.bytes.insert(packet.bytes.end(), out.bytes.data(),
                            out.bytes.data() + out.bytes.size());
        return packet;
    }
    static void addHeader(Packet& packet, Header header) {
        header.fds = static_cast<uint32_t>(packet.fds.size());
        const auto* const bytes = reinterpret_cast<const uint8_t*>(&header);
        packet.bytes.assign(bytes, bytes + sizeof(header));
    }

    /** The end that is handed over; the other one answers. */
    int newCallback() {
        auto [mine, theirs] = kit::socketPair();
        mCallback = std::move(mine);
        mHandedOver = std::move(theirs);
        mCallbacks = 0;
        mAnswers = 0;
        return mHandedOver.get();
    }

    void spoil(Packet& packet) {
        while (!packet.bytes.empty() && mayNot())
            packet.bytes[mData.ConsumeIntegralInRange<size_t>(0, packet.bytes.size() - 1)] ^=
                mData.ConsumeIntegral<uint8_t>();
        if (mayNot()) {
            packet.bytes.resize(mData.ConsumeIntegralInRange<size_t>(0, packet.bytes.size() + 40));
        }
        if (mayNot()) packet.bytes.resize(host::kMaxMessageBytes - mData.ConsumeBool());
        if (mayNot()) packet.bytes = mData.ConsumeBytes<uint8_t>(200);
        if (!mayNot()) return;
        packet.fds.clear();
        const size_t count = mData.ConsumeIntegralInRange<size_t>(0, 70);
        while (packet.fds.size() < count)
            packet.fds.push_back(anyKind());
        if (mData.ConsumeBool() && packet.bytes.size() >= sizeof(Header)) {
            packet.bytes[offsetof(Header, fds)] = static_cast<uint8_t>(count);
        }
    }
    int anyKind() {
        const House& from = house();
        const int kinds[] = {from.memory.get(), from.buffer.handle()->data[0], from.fence.get(),
                             from.device.get(), from.directory.get(),          from.stream.get()};
        const auto kind = mData.ConsumeIntegralInRange<size_t>(0, std::size(kinds));
        return kind < std::size(kinds) ? kinds[kind] : newCallback();
    }

    void call() {
        answerEarly();
        Packet packet = packetOf(mData.ConsumeIntegralInRange<uint32_t>(0, 4));
        spoil(packet);
        if (send(packet)) receive(packet);
    }
    void flood() {
        Packet ping;
        addHeader(ping, {Header::CALL, 0, ++mSerial, 0});
        const int times = mData.ConsumeIntegralInRange(1, 8);
        int sent = 0;
        while (sent < times && send(ping))
            ++sent;
        while (mSocket.isValid() && sent-- > 0 && receive(ping)) {
        }
    }

    bool send(const Packet& packet) {
        if (!mSocket.isValid()) mSocket = house().connectRaw();
        const bool isSent =
            kit::sendRaw(mSocket.get(), packet.bytes.data(), packet.bytes.size(), packet.fds);
        mHandedOver.reset();
        if (!isSent) mSocket.reset();
        return isSent;
    }

    /** One answer for the callback that may come, so that nobody waits for it. */
    void answerEarly() {
        if (!mCallback.isValid() || mAnswers > 0) return;
        Packet packet;
        addHeader(packet, {Header::ANSWER, 1, mCallbacks + 1, 0});
        spoil(packet);
        kit::sendRaw(mCallback.get(), packet.bytes.data(), packet.bytes.size(), packet.fds);
        ++mAnswers;
    }

    /** A call is answered, and everything else is the end. False at that. */
    bool receive(const Packet& packet) {
        pollfd entry = {mSocket.get(), POLLIN, 0};
        // The fuzzer's own alarm may interrupt it.
        fuzz::expectSoon([&] { return poll(&entry, 1, 1000) > 0; }, "neither an answer nor an end");
        std::array<uint32_t, 64> words = {};
        const ssize_t size = recv(mSocket.get(), words.data(), sizeof(words), MSG_DONTWAIT);
        seeCallbacks();
        if (size <= 0) {
            mSocket.reset();
            return false;
        }
        Header call = {};
        fuzz::expect(packet.bytes.size() >= sizeof(call), "an answer to no message");
        memcpy(&call, packet.bytes.data(), sizeof(call));
        const bool isAnswer = words[0] == Header::ANSWER || words[0] == Header::REFUSED;
        fuzz::expect(size >= static_cast<ssize_t>(sizeof(call)) && call.kind == Header::CALL &&
                         call.fds == packet.fds.size() && isAnswer && words[1] == call.method &&
                         words[2] == call.serial && words[3] == 0,
                     "an answer to another call");
        return true;
    }
    void seeCallbacks() {
        char byte = 0;
        while (mCallback.isValid() && recv(mCallback.get(), &byte, 1, MSG_DONTWAIT) > 0) {
            ++mCallbacks;
            mAnswers = 0;
        }
    }

    FuzzedDataProvider& mData;
    UniqueFd mSocket;
    UniqueFd mCallback;    ///< this end of the last callback
    UniqueFd mHandedOver;  ///< the other end, until it is sent
    uint32_t mSerial = 0;
    uint32_t mCallbacks = 0;
    int mAnswers = 0;  ///< sent, and not yet taken
};

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* bytes, size_t size) {
    house().remember();
    FuzzedDataProvider data(bytes, size);
    {
        Peer peer(data);
        for (int steps = 0; data.remaining_bytes() > 0 && steps < 16; ++steps)
            peer.step();
    }
    house().expectUnharmed();
    return 0;
}
