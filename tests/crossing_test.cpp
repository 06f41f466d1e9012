// What a client may send across, and what becomes of the rest: kinds of descriptors, what the
// kernel adds to messages, closing that waits for the client, and what costs a client nothing.

#include <fcntl.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <sys/epoll.h>
#include <sys/eventfd.h>
#include <sys/mman.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <future>
#include <map>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include "holdings.h"
#include "host/channel.h"
#include "host/limits.h"
#include "src/control_data.h"
#include "src/socket.h"
#include "support/few_descriptors.h"
#include "support/interposed.h"
#include "support/raw_client.h"
#include "support/run_shell.h"
#include "support/transport_fixture.h"

namespace testing_support {

using host::UniqueFd;

namespace {

constexpr int kPassPidfd = 76;
constexpr int kPidfd = 0x04;

bool isOpen(int fd) {
    return fcntl(fd, F_GETFD) >= 0;
}

/** A handle that holds no more than these descriptors, which stay the caller's. */
hidl_handle handleOf(const std::vector<int>& fds) {
    native_handle_t* const native = native_handle_create(static_cast<int>(fds.size()), 0);
    std::copy(fds.begin(), fds.end(), &native->data[0]);
    hidl_handle borrowed(native);
    hidl_handle owned(borrowed);
    native_handle_delete(native);
    return owned;
}

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

/** A socket whose last close waits a second for a peer that does not read. */
struct Lingering {
    Lingering() {
        const UniqueFd listening(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
        sockaddr_in address = {};
        address.sin_family = AF_INET;
        address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        socklen_t size = sizeof(address);
        auto* const any = reinterpret_cast<sockaddr*>(&address);
        EXPECT_EQ(bind(listening.get(), any, size), 0);
        EXPECT_EQ(getsockname(listening.get(), any, &size), 0);
        EXPECT_EQ(listen(listening.get(), 1), 0);
        sending.reset(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
        EXPECT_TRUE(connect(sending.get(), any, size) == 0 || errno == EINPROGRESS);
        unread.reset(accept4(listening.get(), nullptr, nullptr, SOCK_CLOEXEC));
        const linger lingering = {1, 1};
        setsockopt(sending.get(), SOL_SOCKET, SO_LINGER, &lingering, sizeof(lingering));
        const std::vector<char> bytes(1 << 16);
        while (send(sending.get(), bytes.data(), bytes.size(), MSG_NOSIGNAL) > 0) {
        }
        fcntl(sending.get(), F_SETFL, 0);  // one that does not block does not linger
    }
    /** The last one is then what is on its way. */
    void giveTo(RawClient& client, const std::vector<uint8_t>& bytes, std::vector<int> fds) {
        fds.push_back(sending.get());
        client.send(bytes, fds);
        sending.reset();
    }
    UniqueFd sending;
    UniqueFd unread;
};

constexpr std::chrono::milliseconds kLessThanItLingers(900);

}  // namespace

class CrossingTest : public TransportFixture {
protected:
    CrossingTest() : slowPath(folder / "slow") {
        std::ofstream(slowPath) << "slow";
        setUpStream();
    }
    UniqueFd openSlow() const { return UniqueFd(open(slowPath.c_str(), O_RDONLY | O_CLOEXEC)); }

    /** A request for a buffer that the session does not know, with these descriptors in a fence. */
    static CaptureRequest withFence(const std::vector<int>& fds) {
        CaptureRequest request = requestFor(1, 77, nullptr);
        request.outputBuffers[0].releaseFence = handleOf(fds);
        return request;
    }
    /** What stands behind the colon when the call is refused on its way; empty when it is not. */
    std::string refusalOf(const CaptureRequest& request) {
        const Return<Status> answer = remote->processCaptureRequest(request);
        const std::string text = answer.isOk() ? "" : answer.description();
        return text.substr(text.find(": ", text.find("FAILED_TRANSACTION")) + 1);
    }
    int64_t linesWith(const std::string& part) const {
        const std::vector<std::string> texts = log.texts();
        return std::count_if(texts.begin(), texts.end(), [&](const std::string& text) {
            return text.find(part) != std::string::npos;
        });
    }
    /** Whether the provider goes on: calls of another client, its own, and a notification. */
    void expectNobodyIsHeldUp() {
        std::string problem;
        const sp<IFDSession> other = host::connect<IFDSession>(path, problem);
        ASSERT_NE(other, nullptr) << problem;
        expectStatus(other->setCallback(callback), Status::OK);
        expectStatus(other->configure(configurationOf(0)), Status::OK);
        const size_t before = deliveries.notified().size();
        FDNotifyMsg msg = {};
        session->sendNotify(msg);
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

    const std::string slowPath;
};

TEST_F(CrossingTest, LetsEachKindCrossWhereItBelongsAndNowhereElse) {
    int pipeEnds[2];
    ASSERT_EQ(pipe2(pipeEnds, O_CLOEXEC), 0);
    const UniqueFd reading(pipeEnds[0]);
    const UniqueFd writing(pipeEnds[1]);
    ASSERT_EQ(mkfifo((folder / "fifo").c_str(), 0600), 0);
    const auto channel = kit::socketPair();
    const auto stream = kit::socketPair(SOCK_STREAM);
    UniqueFd inMemory(open("/dev/shm/fdstream-test", O_RDWR | O_CREAT | O_CLOEXEC, 0600));
    unlink("/dev/shm/fdstream-test");
    // In a mount that is nowhere in the tree a file has a path like a memfd's name. For root only.
    const UniqueFd tree(
        static_cast<int>(syscall(SYS_open_tree, AT_FDCWD, folder.path().c_str(), 1)));
    UniqueFd named(openat(tree.get(), "memfd:x", O_RDWR | O_CREAT | O_CLOEXEC, 0600));
    enum Place { NOWHERE, MEMORY, FENCE, CHANNEL };
    struct Kind {
        const char* name;
        Place place;
        UniqueFd fd;
    };
    Kind kinds[] = {
        {"memfd", MEMORY, UniqueFd(memfd_create("any", MFD_CLOEXEC))},
        {"sealed memfd", MEMORY, UniqueFd(fcntl(buffer.handle()->data[0], F_DUPFD_CLOEXEC, 0))},
        {"memfd of huge pages", NOWHERE, UniqueFd(memfd_create("h", MFD_CLOEXEC | MFD_HUGETLB))},
        {"eventfd", FENCE, UniqueFd(eventfd(0, EFD_CLOEXEC))},
        {"pipe, to read", FENCE, UniqueFd(dup(reading.get()))},
        {"pipe, to write", FENCE, UniqueFd(dup(writing.get()))},
        {"channel", CHANNEL, UniqueFd(dup(channel.first.get()))},
        {"stream socket", NOWHERE, UniqueFd(dup(stream.first.get()))},
        {"TCP socket", NOWHERE, UniqueFd(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0))},
        {"file", NOWHERE, openSlow()},
        {"file in memory", NOWHERE, std::move(inMemory)},
        {"file with a memfd's name", NOWHERE, std::move(named)},
        {"folder", NOWHERE, UniqueFd(open(folder.path().c_str(), O_RDONLY | O_CLOEXEC))},
        {"device", NOWHERE, UniqueFd(open("/dev/null", O_RDWR | O_CLOEXEC))},
        {"terminal", NOWHERE, UniqueFd(posix_openpt(O_RDWR | O_NOCTTY | O_CLOEXEC))},
        {"named pipe", NOWHERE, UniqueFd(open((folder / "fifo").c_str(), O_RDWR | O_CLOEXEC))},
        {"epoll", NOWHERE, UniqueFd(epoll_create1(EPOLL_CLOEXEC))},
        {"pidfd", NOWHERE, UniqueFd(static_cast<int>(syscall(SYS_pidfd_open, getpid(), 0)))},
        {"path only", NOWHERE, UniqueFd(open(slowPath.c_str(), O_PATH | O_CLOEXEC))},
    };
    const UniqueFd event(eventfd(0, EFD_CLOEXEC));
    const int before = kit::Holdings::of().descriptors;
    for (const Kind& kind : kinds) {
        if (!kind.fd.isValid()) printf("not tried, for want of one: %s\n", kind.name);
        if (!kind.fd.isValid()) continue;
        const int fd = kind.fd.get();
        CaptureRequest request = requestFor(1, 77, nullptr);
        request.outputBuffers[0].buffer = handleOf({fd});
        EXPECT_EQ(refusalOf(request),
                  kind.place == MEMORY ? "" : " a buffer's handle takes a memfd only'")
            << kind.name;
        // In each fence, and behind another descriptor that may cross.
        for (const bool ofInput : {false, true}) {
            for (const bool acquire : {false, true}) {
                request = requestFor(1, 77, nullptr);
                auto& of = ofInput ? request.inputBuffer : request.outputBuffers[0];
                (acquire ? of.acquireFence : of.releaseFence) = handleOf({event.get(), fd});
                EXPECT_EQ(refusalOf(request),
                          kind.place == FENCE
                              ? ""
                              : " a fence takes an eventfd, a sync file or a pipe only'")
                    << kind.name;
            }
        }
        RawClient raw = connectRaw();
        EXPECT_EQ(raw.setCallback(fd), kind.place == CHANNEL ? kAnswer : kRefused) << kind.name;
        EXPECT_TRUE(raw.isServed()) << kind.name;
        // Not more at once than may wait to be closed.
        EXPECT_TRUE(eventually([&] { return kit::Holdings::of().descriptors <= before + 8; }));
    }
    EXPECT_EQ(linesWith("a channel ends"), 0);
}

TEST_F(CrossingTest, TakesOrClosesWhateverComesAsControlData) {
    const auto open3 = [] {
        std::vector<int> fds(3);
        for (int& fd : fds)
            fd = eventfd(0, EFD_CLOEXEC);
        return fds;
    };
    const std::vector<int> first = open3();
    const std::vector<int> pidfds = open3();
    const std::vector<int> second = open3();
    const std::vector<int> foreign = open3();
    struct {
        int level;
        int type;
        const std::vector<int>& words;
    } const parts[] = {{SOL_SOCKET, SCM_CREDENTIALS, {foreign}},
                       {SOL_SOCKET, SCM_RIGHTS, first},
                       {SOL_SOCKET, kPidfd, pidfds},
                       {SOL_IP, SCM_RIGHTS, foreign},
                       {SOL_SOCKET, SO_TIMESTAMP, foreign},
                       {SOL_SOCKET, SCM_RIGHTS, second}};
    alignas(
        cmsghdr) char control[sizeof(parts) / sizeof(parts[0]) * CMSG_SPACE(3 * sizeof(int))] = {};
    msghdr message = {};
    message.msg_control = control;
    message.msg_controllen = sizeof(control);
    cmsghdr* next = CMSG_FIRSTHDR(&message);
    for (const auto& part : parts) {
        next->cmsg_level = part.level;
        next->cmsg_type = part.type;
        next->cmsg_len = CMSG_LEN(3 * sizeof(int));
        memcpy(CMSG_DATA(next), part.words.data(), 3 * sizeof(int));
        next = CMSG_NXTHDR(&message, next);
    }
    {
        std::vector<UniqueFd> fds;
        host::detail::takeDescriptors(message, fds);
        ASSERT_EQ(fds.size(), 6U);
        EXPECT_EQ(fds[0].get(), first[0]);
        EXPECT_EQ(fds[5].get(), second[2]);
        for (const int fd : pidfds)
            EXPECT_FALSE(isOpen(fd));
    }
    for (const int fd : foreign) {
        EXPECT_TRUE(isOpen(fd));  // numbers, but no descriptors that came
        close(fd);
    }
}

TEST_F(CrossingTest, KeepsNoPidfdThatAPeerMakesTheKernelAdd) {
    auto pair = kit::socketPair();
    const int theirs = pair.second.get();
    const int on = 1;
    const auto set = [&] {
        for (const int option : {SO_PASSCRED, SO_PASSSEC, SO_TIMESTAMP})
            setsockopt(theirs, SOL_SOCKET, option, &on, sizeof(on));
        return setsockopt(theirs, SOL_SOCKET, kPassPidfd, &on, sizeof(on)) == 0;
    };
    if (!set()) GTEST_SKIP() << "this kernel adds no pidfd to a message (it needs Linux 6.5)";
    RawClient raw = connectRaw();
    ASSERT_EQ(raw.setCallback(theirs), kAnswer);
    int value = -1;
    socklen_t size = sizeof(value);
    EXPECT_EQ(getsockopt(theirs, SOL_SOCKET, kPassPidfd, &value, &size), 0);
    EXPECT_EQ(value, 0);  // switched off when it was handed over ...
    ASSERT_TRUE(set());   // ... and on again by the peer, for the socket is its own too
    RawClient peer(std::move(pair.first));
    const int before = kit::Holdings::of().descriptors;
    for (uint32_t serial = 1; serial <= 40; ++serial) {
        peer.send(message({kAnswer, 1, serial, 0}));
        FDNotifyMsg msg = {};
        session->sendNotify(msg);
        EXPECT_EQ(peer.receivedKind(), kCall);
    }
    EXPECT_TRUE(eventually([&] { return kit::Holdings::of().descriptors <= before; }));
    EXPECT_EQ(linesWith("transaction failed"), 0);
}

TEST_F(CrossingTest, ReceivesDescriptorsThatNoChildInherits) {
    const auto [mine, theirs] = kit::socketPair();
    host::Outgoing out;
    out.fds = {STDERR_FILENO};
    const host::detail::Header header = {host::detail::Header::CALL, 1, 1, 1};
    ASSERT_TRUE(host::detail::sendMessage(mine.get(), header, out, {}).isOk());
    host::detail::Header came = {};
    std::vector<uint8_t> bytes;
    host::Incoming in;
    ASSERT_TRUE(host::detail::receiveMessage(theirs.get(), came, bytes, in, {}).isOk());
    EXPECT_EQ(fcntl(in.fds.at(0).get(), F_GETFD), FD_CLOEXEC);
}

TEST_F(CrossingTest, HoldsNobodyUpWithAFileThatNeverCloses) {
    const UniqueFd slow = openSlow();
    CloseGate gate(slow.get());
    EXPECT_NE(refusalOf(withFence({slow.get()})), "");  // the answer does not wait
    EXPECT_TRUE(gate.waitUntilHeld(1));
    expectNobodyIsHeldUp();

    RawClient faulty = connectRaw();
    // More than a message may have, of which none is left for the kernel to close.
    std::vector<int> many(host::kMaxMessageFds, STDERR_FILENO);
    many.push_back(slow.get());
    faulty.send(message({kCall, kConfigure, 1, 65, 0, 0}), many);
    EXPECT_TRUE(faulty.isClosed());
    EXPECT_TRUE(gate.waitUntilHeld(2));
    expectNobodyIsHeldUp();
    // A callback that is half one.
    RawClient half = connectRaw();
    std::vector<uint8_t> call = message({kCall, kSetCallback, 1, 1}, 1);
    call.back() = 2;
    half.send(call, {slow.get()});
    EXPECT_TRUE(half.isClosed());
    EXPECT_TRUE(gate.waitUntilHeld(3));
    expectNobodyIsHeldUp();

    // An answer that brings it ends its channel, and the monitor goes on.
    const auto [mine, theirs] = kit::socketPair();
    RawClient raw = connectRaw();
    ASSERT_EQ(raw.setCallback(theirs.get()), kAnswer);
    RawClient peer(UniqueFd(dup(mine.get())));
    peer.send(message({kAnswer, 1, 1, 1}), {slow.get()});
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

TEST_F(CrossingTest, HoldsNobodyUpWithASocketThatNeverCloses) {
    // What waits unread in a socket's queue goes with the socket.
    const auto [mine, theirs] = kit::socketPair();
    RawClient raw = connectRaw();
    {
        CloseGate gate(theirs.get());
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
        int slow = -1;
        for (const auto& [file, fd] : openFiles()) {
            int listens = 0;
            socklen_t size = sizeof(listens);
            getsockopt(fd, SOL_SOCKET, SO_ACCEPTCONN, &listens, &size);
            const bool isServers = ends.count(file) == 0 && fd != connected->fd();
            if (it == LISTENS ? listens != 0 : isServers) slow = fd;
        }
        ASSERT_GE(slow, 0);
        CloseGate gate(slow);
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

TEST_F(CrossingTest, LeavesTheKernelNothingToCloseWhenSlotsAreShort) {
    // Of what finds no slot when it arrives. The provider makes room for it where the hard limit
    // allows; so this runs again in a process of its own, where it does not.
    constexpr rlim_t kSlots = 300;
    rlimit before = {};
    getrlimit(RLIMIT_NOFILE, &before);
    if (before.rlim_max > kSlots) {
        const Output again =
            runShell("ulimit -n 300; exec /proc/" + std::to_string(getpid()) +
                     "/exe --gtest_brief=1 "
                     "--gtest_filter=*LeavesTheKernelNothingToCloseWhenSlotsAreShort");
        EXPECT_EQ(again.exitCode, 0) << again.text;
    }
    Lingering inACall;
    Lingering inAnAnswer;
    server.reset();
    const rlimit few = {kSlots, before.rlim_max};
    setrlimit(RLIMIT_NOFILE, &few);
    serve();
    const auto [mine, theirs] = kit::socketPair();
    RawClient raw(path);
    RawClient peer(UniqueFd(dup(mine.get())));
    EXPECT_TRUE(raw.connect());
    EXPECT_EQ(raw.setCallback(theirs.get()), kAnswer);
    {
        // As far as a client gets.
        const TakenUpTo taken(kSlots - host::kConnectionFds - host::kReservedFds);
        const std::vector<int> most(host::kMaxMessageFds - 1, STDERR_FILENO);
        inAnAnswer.giveTo(peer, message({kAnswer, 2, 1, 64}), most);
        inACall.giveTo(raw, message({kCall, kConfigure, 1, 64, 0, 0}), most);
        const auto start = std::chrono::steady_clock::now();
        FDNotifyMsg msg = {};
        session->sendNotify(msg);
        EXPECT_NE(raw.receivedKind(), kAnswer);
        server.reset();
        EXPECT_LT(std::chrono::steady_clock::now() - start, kLessThanItLingers);
    }
    rlimit after = {};
    getrlimit(RLIMIT_NOFILE, &after);
    EXPECT_EQ(after.rlim_cur, kSlots);
    setrlimit(RLIMIT_NOFILE, &before);
    EXPECT_EQ(linesWith("notify transaction failed"), 1);
}

TEST_F(CrossingTest, BoundsWhatClientsLeaveWithTheProvider) {
    WallClock clock;
    clock.stopAt(1);  // no request grows stale, however slow the machine is
    // An empty handle costs its client no descriptor.
    const hidl_handle empty = handleOf({});
    std::string problem;
    const sp<IFDSession> other = host::connect<IFDSession>(path, problem);
    const auto submit = [&](const sp<IFDSession>& from, uint64_t id, bool withHandle) {
        CaptureRequest request = requestFor(1, id, nullptr);
        if (withHandle) request.outputBuffers[0].buffer = empty;
        return from->processCaptureRequest(request);
    };
    const auto expectRefusal = [](const Return<Status>& answer, const char* sentence) {
        EXPECT_FALSE(answer.isOk());
        EXPECT_NE(answer.description().find(sentence), std::string::npos) << answer.description();
    };
    const char* const tooMany = "too many requests are on their way";
    session->sendCaptureResult(resultFor(requestFor(1, 1, nullptr)));  // to no request of anybody
    deliveries.waitFor(1);
    expectStatus(submit(remote, 1, true), Status::OK);
    for (size_t i = 1; i < host::kMaxRequestsOnTheWay; ++i)
        expectStatus(submit(i % 2 == 0 ? remote : other, 1, false), Status::OK);
    for (const sp<IFDSession>& each : {remote, other})
        expectRefusal(submit(each, 1, false), tooMany);
    // A result makes a place, whether the client takes it or not; one that goes nowhere does not.
    serveOne();
    deliveries.waitFor(2);
    expectStatus(submit(other, 1, false), Status::OK);
    expectRefusal(submit(remote, 1, false), tooMany);
    FDNotifyMsg msg = {};
    session->sendNotify(msg);  // when it comes back, that result was answered
    callback->failing = true;
    serveOne();
    deliveries.waitFor(3);
    expectStatus(submit(other, 1, false), Status::OK);
    expectStatus(remote->setCallback(nullptr), Status::OK);
    serveOne();
    drivePass();
    drivePass();
    expectRefusal(submit(remote, 1, false), tooMany);
    // What the session refuses takes no place, and a refused configuration makes none.
    expectStatus(remote->configure(StreamConfiguration()), Status::ILLEGAL_ARGUMENT);
    expectRefusal(submit(remote, 1, false), tooMany);
    expectStatus(remote->configure(configurationOf(0)), Status::OK);
    for (size_t i = 0; i < 2 * host::kMaxRequestsOnTheWay; ++i)
        expectStatus(submit(remote, 1, false), Status::ILLEGAL_ARGUMENT);

    // Ids that come with a handle: the same one any number of times, and a request that is refused
    // brings its own too.
    for (uint64_t id = 1; id < host::kMaxBufferIds; ++id) {
        CaptureRequest request = requestFor(1, id, nullptr, 5);
        request.outputBuffers[0].buffer = empty;
        expectStatus(remote->processCaptureRequest(request), Status::ILLEGAL_ARGUMENT);
    }
    expectStatus(submit(other, host::kMaxBufferIds, true), Status::OK);
    expectStatus(submit(remote, 1, true), Status::OK);
    expectRefusal(submit(remote, host::kMaxBufferIds + 1, true),
                  "too many buffer ids came since the stream was configured");
    expectStatus(submit(remote, host::kMaxBufferIds + 1, false), Status::ILLEGAL_ARGUMENT);
    expectStatus(remote->configure(configurationOf(0)), Status::OK);
    expectStatus(submit(remote, host::kMaxBufferIds + 1, true), Status::OK);
}

TEST_F(CrossingTest, TakesNoMoreWhileTooMuchWaitsToBeClosed) {
    const UniqueFd slow = openSlow();
    const auto bring = [&](size_t count) {
        return refusalOf(withFence(std::vector<int>(count, slow.get())));
    };
    const auto [mine, theirs] = kit::socketPair();
    RawClient early(path);
    RawClient late(path);
    ASSERT_TRUE(early.connect());
    {
        CloseGate gate(slow.get());
        EXPECT_NE(bring(host::kClosingThreads), "");
        EXPECT_TRUE(gate.waitUntilHeld(host::kClosingThreads));
        EXPECT_NE(bring(host::kMaxWaitingToClose - 3), "");
        EXPECT_EQ(early.setCallback(theirs.get()),
                  kAnswer);  // the old one's socket waits, too
        EXPECT_NE(bring(1), "");
        EXPECT_TRUE(remote->ping().isOk());
        log.clear();
        EXPECT_NE(bring(1), "");
        EXPECT_TRUE(log.waitFor(
            "a channel ends: it brings what has to be closed, and too much waits for that already"));
        EXPECT_FALSE(remote->ping().isOk());

        ASSERT_TRUE(late.connect());
        late.send(message({kCall, 0, 1, 0}));
        EXPECT_TRUE(early.isServed());  // calls of the others go on
        EXPECT_EQ(early.setCallback(theirs.get()), kRefused);
        EXPECT_TRUE(early.isClosed());
        EXPECT_FALSE(late.hasAnswer());
    }
    EXPECT_EQ(late.receivedKind(), kAnswer);
}

}  // namespace testing_support
