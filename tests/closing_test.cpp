// What a client sent may close slowly or never: nobody waits for that.

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <chrono>
#include <future>
#include <optional>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "holdings.h"
#include "host/channel.h"
#include "host/limits.h"
#include "raw_socket.h"
#include "support/interposed.h"
#include "support/transport_fixture.h"

namespace testing_support {

using host::UniqueFd;

namespace {

/** Holds up whoever closes a socket of the server at this path. */
class ServerGate : public Gate {
public:
    explicit ServerGate(const std::string& path)
        : mHook([this, path](Watching call, int fd) {
              sockaddr_un name = {};
              socklen_t size = sizeof(name) - 1;
              getsockname(fd, reinterpret_cast<sockaddr*>(&name), &size);
              if (call == Watching::CLOSES && path == name.sun_path) hold();
          }) {}
    ~ServerGate() { open(); }

private:
    const DuringFileCall mHook;
};

}  // namespace

class ClosingTest : public TransportFixture {
protected:
    ClosingTest() { setUpStream(); }

    /** What the client is told that sends these in a fence of a request. */
    std::string refusalOfFence(const std::vector<int>& fds) {
        CaptureRequest request = requestFor(1, 1, buffer.handle());
        request.outputBuffers[0].releaseFence = handleOf(fds);
        return refusalOf(request);
    }
    /** Of so many that are held up nobody hears: others call, and are called. */
    void expectNobodyIsHeldUp(Gate& gate, int count) {
        EXPECT_TRUE(gate.waitUntilHeld(count));
        const sp<IFDSession> other = connect();
        expectStatus(other->setCallback(callback), Status::OK);
        expectStatus(other->configure(configurationOf(0)), Status::OK);
        const size_t before = deliveries.notified().size();
        notify();
        EXPECT_EQ(deliveries.notified().size(), before + 1);
    }
    /** On another thread, because a file's gate does not hold this one up. */
    void expectAnEndInTime(Gate& gate) {
        const auto end = std::async(std::launch::async, [this] { server.reset(); });
        EXPECT_EQ(end.wait_for(std::chrono::seconds(10)), std::future_status::ready);
        gate.open();
    }

    /** No kind that may cross. */
    const UniqueFd slow{open("/dev/zero", O_RDONLY | O_CLOEXEC)};
};

TEST_F(ClosingTest, HoldsNobodyUpWithAFileThatNeverCloses) {
    FileGate gate(slow.get());
    EXPECT_NE(refusalOfFence({slow.get()}), "");      // the answer does not wait
    EXPECT_EQ(linesWith("handleCaptureRequest"), 0);  // the session has not seen it
    expectNobodyIsHeldUp(gate, 1);
    // More than a message may have, of which none is left for the kernel to close.
    RawClient faulty = connectRaw();
    std::vector<int> many(host::kMaxMessageFds, STDERR_FILENO);
    many.push_back(slow.get());
    faulty.send(rawMessage({kCall, kConfigure, 1, 65, 0, 0}), many);
    EXPECT_TRUE(faulty.isClosed());
    expectNobodyIsHeldUp(gate, 2);
    // A callback that is half one.
    RawClient half = connectRaw();
    kit::RawMessage call = kit::rawCallback();
    call.back() = 2;
    half.send(call, {slow.get()});
    EXPECT_TRUE(half.isClosed());
    expectNobodyIsHeldUp(gate, 3);
    // An answer that brings it ends its channel, and the monitor goes on.
    auto [mine, theirs] = kit::socketPair();
    RawClient raw = connectRaw();
    ASSERT_EQ(raw.setCallback(theirs.get()), kAnswer);
    RawClient peer(std::move(mine));
    peer.send(rawMessage({kAnswer, 1, 1, 1}), {slow.get()});
    const CaptureResult result = resultFor(requestFor(1, 1, nullptr));
    session->sendCaptureResult(result);
    EXPECT_TRUE(
        log.waitFor("threadLoop: processCaptureResult transaction failed: "
                    "Status(EX_TRANSACTION_FAILED): 'FAILED_TRANSACTION: the answer brings "
                    "descriptors'"));
    expectNobodyIsHeldUp(gate, 4);
    session->sendCaptureResult(result);
    deliveries.waitFor(1);
    expectAnEndInTime(gate);
}

TEST_F(ClosingTest, HoldsNobodyUpWithASocketThatNeverCloses) {
    // What waits unread in a socket's queue goes with the socket.
    const auto [mine, theirs] = kit::socketPair();
    RawClient raw = connectRaw();
    FileGate gate(theirs.get());
    ASSERT_EQ(raw.setCallback(theirs.get()), kAnswer);
    expectStatus(connect()->setCallback(callback), Status::OK);  // which replaces it
    expectNobodyIsHeldUp(gate, 1);
}

TEST_F(ClosingTest, HoldsNobodyUpWithTheSocketsOfAServer) {
    ServerGate gate(path);
    remote.clear();
    expectNobodyIsHeldUp(gate, 1);
    remote = connect();
    EXPECT_TRUE(remote->ping().isOk());
    expectAnEndInTime(gate);
    // Of two clients that left, of one that is there, and the one in whose queue others may wait.
    EXPECT_TRUE(gate.waitUntilHeld(4));
}

TEST_F(ClosingTest, TakesNoMoreWhileTooMuchWaitsToBeClosed) {
    const auto bring = [&](size_t count) {
        EXPECT_NE(refusalOfFence(std::vector<int>(count, slow.get())), "");
    };
    const auto [mine, theirs] = kit::socketPair();
    RawClient early = connectRaw();
    std::optional<RawClient> another(connectRaw());
    RawClient late(path);
    EXPECT_TRUE(early.isServed() && another->isServed());
    const int threads = kit::Holdings::of().threads + static_cast<int>(host::kClosingThreads);
    // The server looks for connections whenever one has ended, and each has a thread.
    const auto expectEnded = [threads](int connections) {
        EXPECT_TRUE(eventually([&] {
            return kit::Holdings::of().threads == threads - connections;
        })) << connections;
    };
    {
        FileGate gate(slow.get());
        bring(host::kClosingThreads);
        EXPECT_TRUE(gate.waitUntilHeld(host::kClosingThreads));
        bring(host::kMaxWaitingToClose - 3);
        // The old one's socket waits, too.
        EXPECT_EQ(early.setCallback(theirs.get()), kAnswer);
        bring(1);
        EXPECT_TRUE(remote->ping().isOk());
        bring(1);
        EXPECT_FALSE(remote->ping().isOk());
        EXPECT_EQ(linesWith("E a channel ends: it brings what has to be closed, and too much waits "
                            "for that already"),
                  1);
        expectEnded(1);

        ASSERT_TRUE(late.connect());
        late.send(rawMessage({kCall, 0, 1, 0}));
        EXPECT_TRUE(early.isServed());  // calls of the others go on
        EXPECT_EQ(early.setCallback(theirs.get()), kRefused);
        EXPECT_TRUE(early.isClosed());
        expectEnded(2);
        another.reset();
        expectEnded(3);
    }
    EXPECT_EQ(late.receivedKind(), kAnswer);
}

}  // namespace testing_support
