// What a client sent may close slowly or never, and a provider may have few descriptor slots left:
// nobody waits for that, and nobody loses more than what came.

#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>

#include <ctime>

#include "holdings.h"
#include "host/limits.h"
#include "raw_socket.h"
#include "support/few_descriptors.h"
#include "support/interposed.h"
#include "support/run_shell.h"
#include "support/stress.h"
#include "support/transport_fixture.h"

namespace testing_support {

using host::UniqueFd;

/** A test that holds somebody up opens the gate before the watch on its file goes. */
class ClosingTest : public TransportFixture {
protected:
    ClosingTest() { setUpStream(); }

    /** No other thread's call on this file comes back. */
    FileWatch silenced(int fd) {
        return FileWatch(fd, Watching::ALL, [this, maker = std::this_thread::get_id()] {
            if (std::this_thread::get_id() != maker) gate.hold();
        });
    }
    /** So often in a fence of a request, whose refusal does not wait. */
    void bring(size_t count) {
        CaptureRequest request = requestFor(1, 1, buffer.handle());
        request.outputBuffers[0].releaseFence = handleOf(std::vector<int>(count, slow.get()));
        EXPECT_NE(refusalOf(request), "");
    }
    /** Of so many that are held up nobody hears: others call, and are called. */
    void expectNobodyIsHeldUp(int count) {
        EXPECT_TRUE(gate.waitUntilHeld(count));
        const sp<IFDSession> other = connect();
        expectStatus(other->setCallback(callback), Status::OK);
        expectStatus(other->configure(configurationOf(0)), Status::OK);
        const size_t before = deliveries.notified().size();
        notify();
        EXPECT_EQ(deliveries.notified().size(), before + 1);
    }

    /** No kind that may cross. */
    const UniqueFd slow{open("/dev/zero", O_RDONLY | O_CLOEXEC)};
    Gate gate;
};

TEST_F(ClosingTest, HoldsNobodyUpWithAFileThatNeverCloses) {
    const FileWatch watch = silenced(slow.get());
    bring(1);
    EXPECT_EQ(log.linesWith("handleCaptureRequest"), 0);  // the session has not seen it
    expectNobodyIsHeldUp(1);
    // More than a message may have, of which none is left for the kernel to close.
    const RawClient faulty = connectRaw();
    std::vector<int> many(host::kMaxMessageFds, STDERR_FILENO);
    many.push_back(slow.get());
    faulty.send(rawMessage({kCall, kConfigure, 1, 65, 0, 0}), many);
    EXPECT_TRUE(faulty.isClosed());
    expectNobodyIsHeldUp(2);
    // An answer that brings it ends its channel, and the monitor goes on.
    auto [mine, theirs] = kit::socketPair();
    const RawClient raw = connectRaw();
    EXPECT_EQ(raw.setCallback(theirs.get()), kAnswer);
    kit::sendRaw(mine.get(), rawMessage({kAnswer, 1, 1, 1}).data(), 16, {slow.get()});
    const CaptureResult result = resultFor(requestFor(1, 1, nullptr));
    session->sendCaptureResult(result);
    EXPECT_TRUE(eventually([this] { return log.linesWith("the answer brings descriptors") == 1; }));
    expectNobodyIsHeldUp(3);
    session->sendCaptureResult(result);
    deliveries.waitFor(1);
    // On another thread, because a silent file does not hold this one up.
    const Meanwhile end([this] { server.reset(); }, Other::GOES_ON);
    gate.open();
}

TEST_F(ClosingTest, HoldsNobodyUpWithTheSocketsOfAServer) {
    const DuringFileCall watch([this](Watching call, int fd) {
        sockaddr_un name = {};
        socklen_t size = sizeof(name) - 1;
        getsockname(fd, reinterpret_cast<sockaddr*>(&name), &size);
        if (call == Watching::CLOSES && path == name.sun_path) gate.hold();
    });
    remote.clear();
    expectNobodyIsHeldUp(1);
    remote = connect();
    EXPECT_TRUE(remote->ping().isOk());
    const Meanwhile end([this] { server.reset(); }, Other::GOES_ON);
    gate.open();
    // Of two clients that left, of one that is there, and the one in whose queue others may wait.
    EXPECT_TRUE(gate.waitUntilHeld(4));
}

TEST_F(ClosingTest, TakesNoMoreWhileTooMuchWaitsToBeClosed) {
    const auto [mine, theirs] = kit::socketPair();
    const RawClient early = connectRaw();
    RawClient another = connectRaw();
    const RawClient late(path);
    EXPECT_TRUE(early.isServed() && another.isServed());
    const int threads = kit::Holdings::of().threads + static_cast<int>(host::kClosingThreads);
    const FileWatch watch = silenced(slow.get());
    bring(host::kClosingThreads);
    EXPECT_TRUE(gate.waitUntilHeld(host::kClosingThreads));
    bring(host::kMaxWaitingToClose - 3);
    // The old one's socket waits, too: what is unread in its queue goes with it.
    EXPECT_EQ(early.setCallback(theirs.get()), kAnswer);
    bring(1);
    EXPECT_TRUE(remote->ping().isOk());
    bring(1);
    EXPECT_FALSE(remote->ping().isOk());
    EXPECT_EQ(log.linesWith("E a channel ends: it brings what has to be closed, and too much"), 1);
    EXPECT_TRUE(late.connect() && late.send(rawMessage({kCall, 0, 1, 0})));
    EXPECT_TRUE(early.isServed());  // calls of the others go on
    EXPECT_EQ(early.setCallback(theirs.get()), kRefused);
    EXPECT_TRUE(early.isClosed());
    another = RawClient(path);
    // The server looks for connections whenever one has ended, and each has a thread.
    EXPECT_TRUE(eventually([&] { return kit::Holdings::of().threads == threads - 3; }));
    EXPECT_FALSE(late.hasAnswer());
    gate.open();
    EXPECT_EQ(late.receivedKind(), kAnswer);
}

/** A socket whose last close waits 10 s, or until its silent peer, the second one, has gone. */
static std::pair<UniqueFd, UniqueFd> lingering() {
    const UniqueFd listening(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
    EXPECT_EQ(listen(listening.get(), 1), 0);
    sockaddr address = {};
    socklen_t size = sizeof(address);
    EXPECT_EQ(getsockname(listening.get(), &address, &size), 0);
    UniqueFd sending(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
    EXPECT_EQ(connect(sending.get(), &address, size), 0);
    const linger patience = {1, 10};
    setsockopt(sending.get(), SOL_SOCKET, SO_LINGER, &patience, sizeof(patience));
    const std::vector<char> bytes(1 << 16);
    while (send(sending.get(), bytes.data(), bytes.size(), MSG_DONTWAIT) > 0) {
    }
    return {std::move(sending), UniqueFd(accept4(listening.get(), nullptr, nullptr, SOCK_CLOEXEC))};
}

using SlotsTest = TransportFixture;

TEST_F(SlotsTest, AcceptsAgainWhenSlotsAreBack) {
    EXPECT_TRUE(remote->ping().isOk());  // its own connection is there
    const kit::Holdings before = kit::Holdings::of();
    EXPECT_TRUE(connectRaw().isServed());  // and another one has been
    EXPECT_TRUE(eventually([&] { return kit::Holdings::of() == before; }));
    const RawClient early(path);
    const RawClient late(path);
    auto taken = takenUpTo(200);
    const FewDescriptors none(0);
    EXPECT_TRUE(early.connect() && early.isServed());  // by one of those in reserve
    limitSlotsTo(none.limit - host::kConnectionFds);
    EXPECT_TRUE(late.connect() && late.send(rawMessage({kCall, 99, 1, 0})));
    const std::clock_t used = std::clock();
    pollfd answer = {late.fd(), POLLIN, 0};
    EXPECT_EQ(poll(&answer, 1, 200), 0);  // it is not served yet ...
    EXPECT_LT(std::clock(), used + CLOCKS_PER_SEC / (IS_SLOW ? 25 : 50));  // ... and nobody spins
    EXPECT_TRUE(has(refusalOf(requestFor(1, 1, buffer.handle())), "no slot was free for them"));
    EXPECT_FALSE(remote->ping().isOk());  // that channel is at its end
    EXPECT_TRUE(early.isServed());
    taken.clear();
    EXPECT_TRUE(late.isClosed());
}

TEST_F(SlotsTest, LeavesTheKernelNothingToCloseWhenSlotsAreShort) {
    // Of what finds no slot when it arrives. The provider makes room for it where the hard limit
    // allows; so this runs again in a process of its own, where it does not.
    constexpr rlim_t kSlots = 300;
    if (slotLimits().rlim_max > kSlots) {
        expectRuns("ulimit -n 300; exec " THIS_PROGRAM,
                   {{"--gtest_brief=1 --gtest_filter=*LeavesTheKernelNothing*", 0, ""}});
    }
    auto [weapon, unread] = lingering();
    server.reset();
    const FewDescriptors few(0);  // which puts the limit back
    limitSlotsTo(host::kConnectionFds + 3 * host::kReservedFds - 1);
    EXPECT_EQ(host::Server::listen(path, client, reason), nullptr);
    EXPECT_EQ(reason, path + ": too few descriptors may be open to serve");
    limitSlotsTo(kSlots);
    serve();
    EXPECT_NE(host::Server::listen(folder / "another", client, reason), nullptr);  // and ends
    EXPECT_NE(slotLimits().rlim_cur, kSlots);
    const RawClient raw = connectRaw();
    EXPECT_TRUE(raw.isServed());  // each message is looked at first, and then taken
    // A client that has the look begin behind what there is gets no more than the time of a call.
    auto [mine, theirs] = kit::socketPair();
    EXPECT_EQ(raw.setCallback(theirs.get()), kAnswer);
    const int behind = 1 << 20;
    setsockopt(theirs.get(), SOL_SOCKET, SO_PEEK_OFF, &behind, sizeof(behind));
    kit::sendRaw(mine.get(), "", 1, {});
    notify();
    EXPECT_EQ(log.linesWith("notify transaction failed"), 1);
    {
        // As far as a client gets, and what is free by then.
        constexpr rlim_t kClients = kSlots - host::kConnectionFds - host::kReservedFds;
        const auto taken = takenUpTo(kClients);
        const auto isHandle = [] {
            const auto rest = takenUpTo(kClients);
            return handleOf({STDERR_FILENO}).getNativeHandle() != nullptr;
        };
        EXPECT_FALSE(isHandle());
        std::vector<int> most(host::kMaxMessageFds - 1, STDERR_FILENO);
        most.push_back(weapon.get());
        raw.send(rawMessage({kCall, kConfigure, 1, 64, 0, 0}), most);
        weapon.reset();  // so that the last one is on its way
        const auto start = std::chrono::steady_clock::now();
        EXPECT_NE(raw.receivedKind(), kAnswer);
        server.reset();
        EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(5));
        EXPECT_EQ(slotLimits().rlim_cur, kSlots);
        // There is no bound any more, once those that came are closed.
        EXPECT_TRUE(eventually(isHandle));
    }
    serve();
    limitSlotsTo(kSlots - 1);  // by somebody else, so it stays
    server.reset();
    EXPECT_EQ(slotLimits().rlim_cur, kSlots - 1);
}

}  // namespace testing_support
