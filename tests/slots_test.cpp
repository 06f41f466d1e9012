// What a provider does that has few descriptor slots left.

#include <fcntl.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <ctime>
#include <deque>
#include <optional>
#include <thread>
#include <utility>
#include <vector>

#include "host/limits.h"
#include "raw_socket.h"
#include "support/few_descriptors.h"
#include "support/run_shell.h"
#include "support/transport_fixture.h"

namespace testing_support {

using host::UniqueFd;

namespace {

/** A socket whose last close waits 10 s for a peer that does not read, or until that has gone. */
struct Lingering {
    Lingering() {
        const UniqueFd listening(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
        EXPECT_EQ(listen(listening.get(), 1), 0);
        sockaddr_in address = {};
        socklen_t size = sizeof(address);
        auto* const any = reinterpret_cast<sockaddr*>(&address);
        EXPECT_EQ(getsockname(listening.get(), any, &size), 0);
        EXPECT_EQ(connect(sending.get(), any, size), 0);
        unread.reset(accept4(listening.get(), nullptr, nullptr, SOCK_CLOEXEC));
        const linger lingering = {1, 10};
        setsockopt(sending.get(), SOL_SOCKET, SO_LINGER, &lingering, sizeof(lingering));
        const std::vector<char> bytes(1 << 16);
        while (send(sending.get(), bytes.data(), bytes.size(), MSG_NOSIGNAL | MSG_DONTWAIT) > 0) {
        }
    }
    /** The last one is then what is on its way. */
    void giveTo(const kit::RawClient& client, const kit::RawMessage& bytes, std::vector<int> fds) {
        fds.push_back(sending.get());
        client.send(bytes, fds);
        sending.reset();
    }
    UniqueFd sending{socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0)};
    UniqueFd unread;
};

/** What this thread, or the process, has had of the processor. */
int64_t usedMs(clockid_t clock) {
    timespec used = {};
    clock_gettime(clock, &used);
    return used.tv_sec * 1000 + used.tv_nsec / 1000000;
}

rlimit limits() {
    rlimit now = {};
    getrlimit(RLIMIT_NOFILE, &now);
    return now;
}

void limitTo(rlim_t slots) {
    const rlimit few = {slots, limits().rlim_max};
    setrlimit(RLIMIT_NOFILE, &few);
}

}  // namespace

using SlotsTest = TransportFixture;

TEST_F(SlotsTest, AcceptsAgainWhenSlotsAreBack) {
    EXPECT_TRUE(remote->ping().isOk());  // its own connection is there
    RawClient late(path);
    {
        std::optional<TakenUpTo> taken(200);
        const FewDescriptors none(0, host::kConnectionFds);
        EXPECT_TRUE(late.connect());
        late.send(rawMessage({kCall, 99, 1, 0}));
        // That it does not spin shows beside this thread, which does, however busy the machine is.
        const int64_t ofAll = usedMs(CLOCK_PROCESS_CPUTIME_ID);
        const int64_t ofThis = usedMs(CLOCK_THREAD_CPUTIME_ID);
        while (usedMs(CLOCK_THREAD_CPUTIME_ID) < ofThis + 100) {
        }
        EXPECT_LT(usedMs(CLOCK_PROCESS_CPUTIME_ID), ofAll + 160);
        for (int i = 0; i < 3; ++i)
            EXPECT_TRUE(remote->ping().isOk());  // each message is looked at first, and then taken
        EXPECT_TRUE(log.texts("transport").empty());  // not served yet
        taken.reset();
        EXPECT_TRUE(late.isClosed());
    }
    // Those in reserve are for connections, and for nothing that comes by them.
    const CaptureRequest request = requestFor(1, 1, buffer.handle());
    std::deque<RawClient> others;
    while (others.size() + 2 < host::kMaxConnections)
        others.emplace_back(path);
    const FewDescriptors none(0);
    for (RawClient& other : others)
        EXPECT_TRUE(other.connect() && other.isServed());
    const Return<Status> lost = remote->processCaptureRequest(request);
    EXPECT_FALSE(lost.isOk());
    EXPECT_NE(lost.description().find("no slot was free for them"), std::string::npos);
    EXPECT_FALSE(remote->ping().isOk());  // that channel is at its end
}

TEST_F(SlotsTest, KeepsItsReserveFromAClientThatFloodsAndConnectsAtOnce) {
    remote.clear();
    server.reset();
    const FewDescriptors few(host::kConnectionFds + 100);
    const rlim_t firstReserved = few.limit() - host::kConnectionFds - host::kReservedFds;
    serve();
    setUpStream();
    expectStatus(remote->processCaptureRequest(requestFor(0, 1, buffer.handle())), Status::OK);
    std::atomic<bool> done{false};
    std::thread flood([&] {
        while (!done)
            EXPECT_TRUE(remote->processCaptureRequest(requestFor(1, 1, nullptr)).isOk());
    });
    const pid_t connecting = fork();
    if (connecting == 0) {
        for (int i = 0; i < 500; ++i)
            kit::connectRaw(kit::rawSocket().get(), path);
        _exit(0);
    }
    EXPECT_EQ(waitpid(connecting, nullptr, 0), connecting);
    done = true;
    flood.join();
    // No memory that stays got a number of the reserve, for calls or for connections.
    for (rlim_t fd = firstReserved; fd < 4096; ++fd)
        EXPECT_LT(fcntl(static_cast<int>(fd), F_GET_SEALS), 0) << fd;
}

TEST_F(SlotsTest, LeavesTheKernelNothingToCloseWhenSlotsAreShort) {
    // Of what finds no slot when it arrives. The provider makes room for it where the hard limit
    // allows; so this runs again in a process of its own, where it does not.
    constexpr rlim_t kSlots = 300;
    const rlimit before = limits();
    if (before.rlim_max > kSlots) {
        const Output again =
            runShell("ulimit -n 300; exec " THIS_PROGRAM
                     " --gtest_brief=1 "
                     "--gtest_filter=*LeavesTheKernelNothingToCloseWhenSlotsAreShort");
        EXPECT_EQ(again.exitCode, 0) << again.text;
    }
    Lingering inACall;
    Lingering inAnAnswer;
    server.reset();
    limitTo(host::kConnectionFds + 3 * host::kReservedFds - 1);
    std::string problem;
    EXPECT_EQ(host::Server::listen(path, client, problem), nullptr);
    EXPECT_EQ(problem, path + ": too few descriptors may be open to serve");
    limitTo(kSlots);
    serve();
    EXPECT_NE(host::Server::listen(folder / "another", client, problem), nullptr);  // and ends
    EXPECT_NE(limits().rlim_cur, kSlots);
    auto [mine, theirs] = kit::socketPair();
    RawClient raw = connectRaw();
    RawClient peer(std::move(mine));
    EXPECT_EQ(raw.setCallback(theirs.get()), kAnswer);
    {
        // As far as a client gets.
        const TakenUpTo taken(kSlots - host::kConnectionFds - host::kReservedFds);
        const std::vector<int> most(host::kMaxMessageFds - 1, STDERR_FILENO);
        inAnAnswer.giveTo(peer, rawMessage({kAnswer, 2, 1, 64}), most);
        inACall.giveTo(raw, rawMessage({kCall, kConfigure, 1, 64, 0, 0}), most);
        const auto start = std::chrono::steady_clock::now();
        notify();
        EXPECT_NE(raw.receivedKind(), kAnswer);
        server.reset();
        EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(5));
        EXPECT_EQ(limits().rlim_cur, kSlots);
        // There is no bound any more, once those that came are closed.
        const std::vector<int> some(30, STDERR_FILENO);
        EXPECT_TRUE(eventually([&] { return handleOf(some).getNativeHandle() != nullptr; }));
    }
    serve();
    limitTo(kSlots - 1);  // by somebody else, so it stays
    server.reset();
    EXPECT_EQ(limits().rlim_cur, kSlots - 1);
    setrlimit(RLIMIT_NOFILE, &before);
    EXPECT_EQ(linesWith("notify transaction failed"), 1);
}

}  // namespace testing_support
