// Which descriptors a client may send across, and what becomes of what the kernel adds to a
// message.

#include <fcntl.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <sys/epoll.h>
#include <sys/eventfd.h>
#include <sys/mman.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cstring>
#include <fstream>
#include <iterator>
#include <string>
#include <utility>
#include <vector>

#include "holdings.h"
#include "host/limits.h"
#include "raw_socket.h"
#include "src/control_data.h"
#include "src/socket.h"
#include "support/kernel.h"
#include "support/transport_fixture.h"

namespace testing_support {

using host::UniqueFd;

namespace {

constexpr int kPassPidfd = 76;
constexpr int kPidfd = 0x04;

enum Place { NOWHERE, MEMORY, FENCE, CHANNEL };

/** A kind of descriptor, and where it may cross. */
struct Kind {
    const char* name;
    Place place;
    UniqueFd fd;
};

/** One of each; invalid is what this user or kernel cannot have. */
std::vector<Kind> kindsIn(const kit::TemporaryFolder& folder, int sealed, int client) {
    int pipe[2];
    EXPECT_EQ(pipe2(pipe, O_CLOEXEC), 0);
    const std::string file = folder / "file";
    std::ofstream(file) << "text";
    const std::string fifo = folder / "fifo";
    EXPECT_EQ(mkfifo(fifo.c_str(), 0600), 0);
    // In a mount that is nowhere in the tree a file has a path like a memfd's name. For root only.
    const UniqueFd tree(
        static_cast<int>(syscall(SYS_open_tree, AT_FDCWD, folder.path().c_str(), 1)));
    UniqueFd listening = kit::rawSocket();
    EXPECT_TRUE(kit::listenRaw(listening.get(), folder / "listening"));
    Kind all[] = {
        {"memfd", MEMORY, UniqueFd(memfd_create("any", MFD_CLOEXEC))},
        {"sealed memfd", MEMORY, UniqueFd(fcntl(sealed, F_DUPFD_CLOEXEC, 0))},
        {"memfd of huge pages", NOWHERE, UniqueFd(memfd_create("h", MFD_CLOEXEC | MFD_HUGETLB))},
        {"eventfd", FENCE, UniqueFd(eventfd(0, EFD_CLOEXEC))},
        {"pipe, to read", FENCE, UniqueFd(pipe[0])},
        {"pipe, to write", FENCE, UniqueFd(pipe[1])},
        {"channel", CHANNEL, kit::socketPair().first},
        {"channel that listens", CHANNEL, std::move(listening)},
        {"channel of nobody", CHANNEL, kit::rawSocket()},
        {"channel to the provider", CHANNEL, UniqueFd(fcntl(client, F_DUPFD_CLOEXEC, 0))},
        {"stream socket", NOWHERE, kit::socketPair(SOCK_STREAM).first},
        {"socket between machines", NOWHERE,
         UniqueFd(socket(AF_VSOCK, SOCK_SEQPACKET | SOCK_CLOEXEC, 0))},
        {"TCP socket", NOWHERE, UniqueFd(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0))},
        {"file", NOWHERE, UniqueFd(open(file.c_str(), O_RDONLY | O_CLOEXEC))},
        {"file in memory", NOWHERE, UniqueFd(open("/dev/shm", O_RDWR | O_TMPFILE | O_CLOEXEC))},
        {"file with a memfd's name", NOWHERE,
         UniqueFd(openat(tree.get(), "memfd:x", O_RDWR | O_CREAT | O_CLOEXEC, 0600))},
        {"folder", NOWHERE, UniqueFd(open(folder.path().c_str(), O_RDONLY | O_CLOEXEC))},
        {"device", NOWHERE, UniqueFd(open("/dev/null", O_RDWR | O_CLOEXEC))},
        {"terminal", NOWHERE, UniqueFd(posix_openpt(O_RDWR | O_NOCTTY | O_CLOEXEC))},
        {"named pipe", NOWHERE, UniqueFd(open(fifo.c_str(), O_RDWR | O_CLOEXEC))},
        {"epoll", NOWHERE, UniqueFd(epoll_create1(EPOLL_CLOEXEC))},
        {"pidfd", NOWHERE, UniqueFd(static_cast<int>(syscall(SYS_pidfd_open, getpid(), 0)))},
        {"path only", NOWHERE, UniqueFd(open(file.c_str(), O_PATH | O_CLOEXEC))},
    };
    return {std::make_move_iterator(std::begin(all)), std::make_move_iterator(std::end(all))};
}

/** Has the kernel add what it can to each message. False when that is no pidfd. */
bool askForControlData(int socket) {
    const int on = 1;
    for (const int option : {SO_PASSCRED, SO_PASSSEC, SO_TIMESTAMP})
        setsockopt(socket, SOL_SOCKET, option, &on, sizeof(on));
    return setsockopt(socket, SOL_SOCKET, kPassPidfd, &on, sizeof(on)) == 0;
}

}  // namespace

using DescriptorsTest = TransportFixture;

TEST_F(DescriptorsTest, LetsEachKindCrossWhereItBelongsAndNowhereElse) {
    const UniqueFd event(eventfd(0, EFD_CLOEXEC));
    const RawClient own = connectRaw();
    const std::vector<Kind> kinds = kindsIn(folder, buffer.handle()->data[0], own.fd());
    const int before = kit::Holdings::of().descriptors;
    for (const auto& [name, place, fd] : kinds) {
        SCOPED_TRACE(name);
        if (!fd.isValid()) printf("not tried, for want of one: %s\n", name);
        if (!fd.isValid()) continue;
        CaptureRequest request = requestFor(1, 77, nullptr);
        request.outputBuffers[0].buffer = handleOf({fd.get()});
        // Of two refusals the first is told.
        if (place == NOWHERE) request.outputBuffers[0].releaseFence = handleOf({fd.get()});
        EXPECT_EQ(refusalOf(request),
                  place == MEMORY ? "" : " a buffer's handle takes a memfd only'");
        // In each fence, and behind another descriptor that may cross.
        for (const auto fence : {&StreamBuffer::acquireFence, &StreamBuffer::releaseFence}) {
            for (const bool ofInput : {false, true}) {
                request = requestFor(1, 77, nullptr);
                StreamBuffer& of = ofInput ? request.inputBuffer : request.outputBuffers[0];
                of.*fence = handleOf({event.get(), fd.get()});
                EXPECT_EQ(
                    refusalOf(request),
                    place == FENCE ? "" : " a fence takes an eventfd, a sync file or a pipe only'");
            }
        }
        RawClient raw = connectRaw();
        EXPECT_EQ(raw.setCallback(fd.get()), place == CHANNEL ? kAnswer : kRefused);
        if (place == CHANNEL) notify();  // which nobody answers
        EXPECT_TRUE(raw.isServed());
        // Not more at once than may wait to be closed.
        EXPECT_TRUE(eventually([&] { return kit::Holdings::of().descriptors <= before + 8; }));
    }
    EXPECT_EQ(linesWith("a channel ends"), 1);  // the one on which the provider called itself
    EXPECT_EQ(linesWith("E sendNotify: notify transaction failed"), 4);
}

TEST_F(DescriptorsTest, TakesOrClosesWhateverComesAsControlData) {
    const struct {
        int level, type;
        bool isDescriptor;
    } parts[] = {{SOL_SOCKET, SCM_CREDENTIALS, false}, {SOL_SOCKET, SCM_RIGHTS, true},
                 {SOL_SOCKET, kPidfd, true},           {SOL_IP, SCM_RIGHTS, false},
                 {SOL_SOCKET, SO_TIMESTAMP, false},    {SOL_SOCKET, SCM_RIGHTS, true}};
    int fds[std::size(parts)];
    alignas(cmsghdr) char control[std::size(parts) * CMSG_SPACE(sizeof(int))] = {};
    msghdr message = {};
    message.msg_control = control;
    message.msg_controllen = sizeof(control);
    cmsghdr* next = CMSG_FIRSTHDR(&message);
    for (size_t i = 0; i < std::size(parts); ++i) {
        fds[i] = fcntl(STDERR_FILENO, F_DUPFD_CLOEXEC, 0);
        next->cmsg_level = parts[i].level;
        next->cmsg_type = parts[i].type;
        next->cmsg_len = CMSG_LEN(sizeof(int));
        memcpy(CMSG_DATA(next), &fds[i], sizeof(int));
        next = CMSG_NXTHDR(&message, next);
    }
    std::vector<UniqueFd> taken;
    host::detail::takeDescriptors(message, taken);
    ASSERT_EQ(taken.size(), 2U);
    EXPECT_EQ(taken[0].get(), fds[1]);
    EXPECT_EQ(taken[1].get(), fds[5]);
    taken.clear();
    for (size_t i = 0; i < std::size(parts); ++i) {
        EXPECT_EQ(fcntl(fds[i], F_GETFD) < 0, parts[i].isDescriptor) << i;
        if (!parts[i].isDescriptor) close(fds[i]);
    }
}

TEST_F(DescriptorsTest, KeepsNoPidfdThatAPeerMakesTheKernelAdd) {
    if (!kernel().addsPidfds) GTEST_SKIP() << "nothing here adds a pidfd (it needs Linux 6.5)";
    auto [mine, theirs] = kit::socketPair();
    ASSERT_TRUE(askForControlData(theirs.get()));
    RawClient raw = connectRaw();
    ASSERT_EQ(raw.setCallback(theirs.get()), kAnswer);
    int value = -1;
    socklen_t size = sizeof(value);
    EXPECT_EQ(getsockopt(theirs.get(), SOL_SOCKET, kPassPidfd, &value, &size), 0);
    EXPECT_EQ(value, 0);                           // switched off when it was handed over ...
    ASSERT_TRUE(askForControlData(theirs.get()));  // ... and on by the peer, whose it is too
    RawClient peer(std::move(mine));
    const int before = kit::Holdings::of().descriptors;
    for (uint32_t serial = 1; serial <= 40; ++serial) {
        peer.send(rawMessage({kAnswer, 1, serial, 0}));
        notify();
        EXPECT_EQ(peer.receivedKind(), kCall);
    }
    EXPECT_TRUE(eventually([&] { return kit::Holdings::of().descriptors <= before; }));
    EXPECT_EQ(linesWith("transaction failed"), 0);
}

TEST_F(DescriptorsTest, ReceivesAllThatTheKernelDeliversAndNoChildInheritsIt) {
    if (!kernel().closesWhatHasNoRoom)
        GTEST_SKIP()
            << "what finds no room is neither told of nor closed here: an emulator's fault";
    const auto [mine, theirs] = kit::socketPair();
    if (!askForControlData(theirs.get()))
        printf("not tried, for want of one: a pidfd beside descriptors\n");
    const std::vector<int> most(host::kMaxArrivingFds, STDERR_FILENO);
    ASSERT_TRUE(kit::sendRaw(mine.get(), "x", 1, most));
    host::detail::Header came = {};
    std::vector<uint8_t> bytes;
    host::Incoming in;
    EXPECT_FALSE(host::detail::receiveMessage(theirs.get(), came, bytes, in, {}).isOk());
    EXPECT_EQ(in.fds.size(), most.size());
    for (const UniqueFd& fd : in.fds)
        EXPECT_EQ(fcntl(fd.get(), F_GETFD), FD_CLOEXEC);
}

}  // namespace testing_support
