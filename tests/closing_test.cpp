// What a client sent may close slowly or never: nobody waits for that.

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <unistd.h>

#include <chrono>
#include <filesystem>
#include <future>
#include <map>
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

/** The files that are open in this process, each with one of its descriptors. */
std::map<std::string, int> openFiles() {
    std::map<std::string, int> files;
    for (const auto& entry : std::filesystem::directory_iterator("/proc/self/fd")) {
        std::error_code gone;
        files[std::filesystem::read_symlink(entry.path(), gone)] =
            std::stoi(entry.path().filename());
    }
    return files;
}

}  // namespace

class ClosingTest : public TransportFixture {
protected:
    ClosingTest() { setUpStream(); }

    /** A request for a buffer that the session does not know, with these descriptors in a fence. */
    static CaptureRequest withFence(const std::vector<int>& fds) {
        CaptureRequest request = requestFor(1, 77, nullptr);
        request.outputBuffers[0].releaseFence = handleOf(fds);
        return request;
    }
    /** Whether the provider goes on: calls of another client, its own, and a notification. */
    void expectNobodyIsHeldUp() {
        const sp<IFDSession> other = connect();
        expectStatus(other->setCallback(callback), Status::OK);
        expectStatus(other->configure(configurationOf(0)), Status::OK);
        const size_t before = deliveries.notified().size();
        notify();
        EXPECT_EQ(deliveries.notified().size(), before + 1);
    }
    /** On another thread, because a gate does not hold this one up. */
    void expectAnEndInTime() {
        std::promise<void> ended;
        std::thread([&] {
            server.reset();
            ended.set_value();
        }).detach();
        const auto patience = std::chrono::seconds(10);
        EXPECT_EQ(ended.get_future().wait_for(patience), std::future_status::ready);
    }

    /** No kind that may cross. */
    const UniqueFd slow{open("/dev/zero", O_RDONLY | O_CLOEXEC)};
};

TEST_F(ClosingTest, HoldsNobodyUpWithAFileThatNeverCloses) {
    FileGate gate(slow.get());
    EXPECT_NE(refusalOf(withFence({slow.get()})), "");  // the answer does not wait
    EXPECT_TRUE(gate.waitUntilHeld(1));
    expectNobodyIsHeldUp();

    RawClient faulty = connectRaw();
    // More than a message may have, of which none is left for the kernel to close.
    std::vector<int> many(host::kMaxMessageFds, STDERR_FILENO);
    many.push_back(slow.get());
    faulty.send(rawMessage({kCall, kConfigure, 1, 65, 0, 0}), many);
    EXPECT_TRUE(faulty.isClosed());
    EXPECT_TRUE(gate.waitUntilHeld(2));
    expectNobodyIsHeldUp();
    // A callback that is half one.
    RawClient half = connectRaw();
    kit::RawMessage call = kit::rawCallback();
    call.back() = 2;
    half.send(call, {slow.get()});
    EXPECT_TRUE(half.isClosed());
    EXPECT_TRUE(gate.waitUntilHeld(3));
    expectNobodyIsHeldUp();

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
    EXPECT_TRUE(gate.waitUntilHeld(4));
    expectNobodyIsHeldUp();
    session->sendCaptureResult(result);
    deliveries.waitFor(1);
    expectAnEndInTime();
}

TEST_F(ClosingTest, HoldsNobodyUpWithASocketThatNeverCloses) {
    // What waits unread in a socket's queue goes with the socket.
    const auto [mine, theirs] = kit::socketPair();
    RawClient raw = connectRaw();
    {
        FileGate gate(theirs.get());
        ASSERT_EQ(raw.setCallback(theirs.get()), kAnswer);
        expectNobodyIsHeldUp();  // another callback replaces this one
        EXPECT_TRUE(gate.waitUntilHeld(1));
        expectNobodyIsHeldUp();
    }
    // So it is with what a client connected, whether it leaves or the server ends, and with what
    // the server listens on, in whose queue others may wait.
    enum Case { LEAVES, ENDS, LISTENS };
    for (const Case it : {LEAVES, ENDS, LISTENS}) {
        if (server == nullptr) serve();
        std::map<std::string, int> ends = openFiles();
        std::optional<RawClient> connected(path);
        ASSERT_TRUE(connected->connect() && connected->isServed());
        int serving = -1;
        for (const auto& [file, fd] : openFiles()) {
            int listens = 0;
            socklen_t size = sizeof(listens);
            getsockopt(fd, SOL_SOCKET, SO_ACCEPTCONN, &listens, &size);
            const bool isServers = ends.count(file) == 0 && fd != connected->fd();
            if (it == LISTENS ? listens != 0 : isServers) serving = fd;
        }
        ASSERT_GE(serving, 0);
        FileGate gate(serving);
        if (it == LEAVES) {
            connected.reset();
            EXPECT_TRUE(gate.waitUntilHeld(1));
            expectNobodyIsHeldUp();
        } else {
            expectAnEndInTime();
            EXPECT_TRUE(gate.waitUntilHeld(1));
        }
    }
}

TEST_F(ClosingTest, TakesNoMoreWhileTooMuchWaitsToBeClosed) {
    const auto bring = [&](size_t count) {
        return refusalOf(withFence(std::vector<int>(count, slow.get())));
    };
    const auto [mine, theirs] = kit::socketPair();
    RawClient early = connectRaw();
    std::optional<RawClient> another(connectRaw());
    RawClient late(path);
    EXPECT_TRUE(early.isServed() && another->isServed());
    const int threads = kit::Holdings::of().threads;
    // The server looks for connections whenever one has ended, and each has a thread.
    const auto expectLess = [threads](int connections) {
        EXPECT_TRUE(eventually([&] {
            const int now = kit::Holdings::of().threads;
            return now == threads - connections + static_cast<int>(host::kClosingThreads);
        })) << connections;
    };
    {
        FileGate gate(slow.get());
        EXPECT_NE(bring(host::kClosingThreads), "");
        EXPECT_TRUE(gate.waitUntilHeld(host::kClosingThreads));
        EXPECT_NE(bring(host::kMaxWaitingToClose - 3), "");
        // The old one's socket waits, too.
        EXPECT_EQ(early.setCallback(theirs.get()), kAnswer);
        EXPECT_NE(bring(1), "");
        EXPECT_TRUE(remote->ping().isOk());
        EXPECT_NE(bring(1), "");
        EXPECT_FALSE(remote->ping().isOk());
        EXPECT_EQ(linesWith("E a channel ends: it brings what has to be closed, and too much waits "
                            "for that already"),
                  1);
        expectLess(1);

        ASSERT_TRUE(late.connect());
        late.send(rawMessage({kCall, 0, 1, 0}));
        EXPECT_TRUE(early.isServed());  // calls of the others go on
        EXPECT_EQ(early.setCallback(theirs.get()), kRefused);
        EXPECT_TRUE(early.isClosed());
        expectLess(2);
        another.reset();
        expectLess(3);
    }
    EXPECT_EQ(late.receivedKind(), kAnswer);
}

}  // namespace testing_support
