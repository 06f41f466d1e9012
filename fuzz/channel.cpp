// Served channels over real sockets, and a peer that sends what it likes: packets that are nearly
// calls, descriptors of any kind, halves of closes, and answers to callbacks before they are asked.

#include <poll.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <optional>
#include <utility>
#include <vector>

#include "host/channel.h"
#include "host/log.h"
#include "host/threads.h"
#include "message_oracle.h"
#include "raw_client.h"
#include "raw_socket.h"
#include "records.h"
#include "support.h"
#include "temporary_folder.h"
#include "vendor/zoru/zoruprovider/fdstream/1.0/IFDSession.h"

namespace {

using namespace fuzz;  // NOLINT: the oracle's
using android::hardware::Return;

/** Calls a callback back at once, and keeps nothing. */
struct CallingBack : public IFDSession {
    Return<Status> setCallback(const android::sp<IFDSessionCallback>& callback) override {
        expect(host::callingProcess() == getpid(), "nobody knows who calls");
        for (int i = 0; callback != nullptr && i < 3; ++i)
            (void)callback->processCaptureResult({kit::resultFor({})}).isOk();
        return Status::OK;
    }
    Return<Status> configure(const kit::StreamConfiguration& /*one*/) override { return {}; }
    Return<Status> processCaptureRequest(const kit::CaptureRequest& /*one*/) override {
        return Status::ILLEGAL_ARGUMENT;
    }
};

/** What every input meets. */
struct House {
    host::LogCapture quiet;
    const kit::TemporaryFolder folder;
    const std::string path = folder / "socket";
    const host::Buffer buffer = kit::allocate({16, 8});
    const kit::CaptureRequest request = kit::requestFor(1, 1, buffer.handle());
    std::string problem;
    std::atomic<int> present{0};  ///< of connections
    const std::unique_ptr<host::Server> server =
        host::Server::listen(path, new CallingBack, problem,
                             {[this](pid_t) { ++present; }, [this](pid_t) { --present; }});
};

struct Packet {
    std::vector<uint8_t> bytes;
    std::vector<int> fds;
};

class Peer {
public:
    Peer(FuzzedDataProvider& data, const House& house) : mData(data), mHouse(house) {}

    void step() {
        const int what = mData.ConsumeIntegralInRange(0, 9);
        if (what == 1) mCallback.reset();
        if (what == 0 && mSocket) shutdown(mSocket->fd(), mData.ConsumeBool());
        if (what < 2) return;
        Packet packet = call(mData.ConsumeIntegralInRange<uint32_t>(0, 4));
        spoil(packet);
        if (!mSocket) expect(mSocket.emplace(mHouse.path).connect(), "cannot connect");
        mSocket->send(packet.bytes, packet.fds) ? receive(packet) : mSocket.reset();
        mHandedOver.clear();
    }

private:
    /** Rarely, and not when the input is at its end. */
    bool mayNot() { return mData.ConsumeIntegral<uint8_t>() > 243; }

    Packet call(uint32_t method) {
        const Header header = {Header::CALL, method, ++mSerial, method % 2};
        if (method == 1) return {messageOf(header, true), {newCallback()}};
        if (method == 2) return {messageOf(header, kit::configurationOf({16, 8})), {}};
        if (method == 3)
            return {messageOf(header, mHouse.request), {mHouse.buffer.handle()->data[0]}};
        return {messageOf(header), {}};
    }
    /** The end that is handed over. From the other one two answers come in advance, and no more, so
     * that nobody waits. */
    int newCallback() {
        auto [mine, theirs] = kit::socketPair();
        mCallback.emplace(std::move(mine));
        for (uint32_t serial = 1; serial <= 2; ++serial) {
            Packet answer = {messageOf(Header{Header::ANSWER, 1, serial, 0}), {}};
            spoil(answer);
            mCallback->send(answer.bytes, answer.fds);
        }
        shutdown(mCallback->fd(), SHUT_WR);
        mHandedOver.push_back(std::move(theirs));
        return mHandedOver.back().get();
    }

    void spoil(Packet& packet) {
        auto& bytes = packet.bytes;
        while (!bytes.empty() && mayNot())
            bytes[mData.ConsumeIntegralInRange<size_t>(0, bytes.size() - 1)] ^=
                mData.ConsumeIntegral<uint8_t>();
        if (mayNot()) bytes.resize(mData.ConsumeIntegralInRange<size_t>(0, bytes.size() + 40));
        if (mayNot()) bytes.resize(host::kMaxMessageBytes - mData.ConsumeBool());
        if (mayNot()) bytes = mData.ConsumeBytes<uint8_t>(200);
        if (!mayNot()) return;
        packet.fds.resize(mData.ConsumeIntegralInRange<size_t>(0, 70));
        for (int& fd : packet.fds) {
            const int kind = mData.ConsumeIntegralInRange(0, kKinds);
            fd = kind < kKinds ? kKind[kind].get() : newCallback();
        }
        if (mData.ConsumeBool() && bytes.size() >= sizeof(Header))
            bytes[offsetof(Header, fds)] = static_cast<uint8_t>(packet.fds.size());
    }

    /** A call is answered, and everything else is the end. */
    void receive(const Packet& packet) {
        pollfd entry = {mSocket->fd(), POLLIN, 0};
        // The fuzzer's own alarm may interrupt it.
        expectSoon([&] { return poll(&entry, 1, 1000) > 0; }, "neither an answer nor an end");
        Header answer = {};
        const ssize_t size = recv(mSocket->fd(), &answer, sizeof(answer), MSG_DONTWAIT);
        if (size <= 0) return mSocket.reset();
        Header call = {};
        memcpy(&call, packet.bytes.data(), std::min(sizeof(call), packet.bytes.size()));
        std::vector<int> fds(packet.fds.size());
        std::transform(packet.fds.begin(), packet.fds.end(), fds.begin(), dup);
        // Else a callback that the provider took would be refused here.
        expectSoon([] { return !host::detail::isClosingBehind(); }, "closing stays behind");
        const bool isWhole = readMessage(SESSION, host::Peer::CLIENT, packet.bytes, fds).isTaken;
        const bool isSame = size == sizeof(answer) && answer.method == call.method &&
                            answer.serial == call.serial && answer.fds == 0;
        expect(isSame && call.kind == Header::CALL && call.fds == fds.size() &&
                   (answer.kind == Header::REFUSED || (answer.kind == Header::ANSWER && isWhole)),
               "an answer to another call, or to what is none");
    }

    FuzzedDataProvider& mData;
    const House& mHouse;
    std::optional<kit::RawClient> mSocket;
    std::optional<kit::RawClient> mCallback;  ///< this end of the last callback
    std::vector<host::UniqueFd> mHandedOver;  ///< the other ends, until they are sent
    uint32_t mSerial = 0;
};

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* bytes, size_t size) {
    static House& house = *new House;
    // Now, because the fuzzer opens descriptors of its own between two inputs.
    const SameDescriptors same;
    FuzzedDataProvider data(bytes, size);
    {
        Peer peer(data, house);
        for (int steps = 0; data.remaining_bytes() > 0 && steps < 16; ++steps)
            peer.step();
    }
    // One that has gone before its turn and one that gets no thread have gone like all others.
    kit::RawClient(house.path).connect();
    host::failNextThreadStart();
    // Again, because the bounded wait for an answer may end where the machine has too much to do.
    const auto isServing = [] {
        const kit::RawClient other(house.path);
        return other.connect() && other.isServed();
    };
    expectSoon(isServing, "others are not served");
    expectSoon([] { return house.present == 0; }, "a connection is thought to be there");
    house.quiet.clear();
    return 0;
}
