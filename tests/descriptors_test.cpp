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

/** The file that is open there, which no other has; 0 when none is. */
ino_t fileOf(int fd) {
    struct stat status = {};
    return fstat(fd, &status) == 0 ? status.st_ino : 0;
}

enum Place { NOWHERE, MEMORY, FENCE, CHANNEL };

/** A kind of descriptor, and where it may cross. */
struct Kind {
    const char* name;
    Place place;
    UniqueFd fd;
};

/** One of each; invalid is what this user or kernel cannot have. */
std::vector<Kind> kindsIn(const kit::TemporaryFolder& folder, int sealed) {
    int pipe[2];
    EXPECT_EQ(pipe2(pipe, O_CLOEXEC), 0);
    const std::string filePath = folder / "file";
    std::ofstream(filePath) << "text";
    EXPECT_EQ(mkfifo((folder / "fifo").c_str(), 0600), 0);
    auto channel = kit::socketPair();
    auto stream = kit::socketPair(SOCK_STREAM);
    UniqueFd inMemory(open("/dev/shm/fdstream-test", O_RDWR | O_CREAT | O_CLOEXEC, 0600));
    unlink("/dev/shm/fdstream-test");
    // In a mount that is nowhere in the tree a file has a path like a memfd's name. For root only.
    const UniqueFd tree(
        static_cast<int>(syscall(SYS_open_tree, AT_FDCWD, folder.path().c_str(), 1)));
    UniqueFd named(openat(tree.get(), "memfd:x", O_RDWR | O_CREAT | O_CLOEXEC, 0600));
    Kind all[] = {
        {"memfd", MEMORY, UniqueFd(memfd_create("any", MFD_CLOEXEC))},
        {"sealed memfd", MEMORY, UniqueFd(fcntl(sealed, F_DUPFD_CLOEXEC, 0))},
        {"memfd of huge pages", NOWHERE, UniqueFd(memfd_create("h", MFD_CLOEXEC | MFD_HUGETLB))},
        {"eventfd", FENCE, UniqueFd(eventfd(0, EFD_CLOEXEC))},
        {"pipe, to read", FENCE, UniqueFd(pipe[0])},
        {"pipe, to write", FENCE, UniqueFd(pipe[1])},
        {"channel", CHANNEL, std::move(channel.first)},
        {"stream socket", NOWHERE, std::move(stream.first)},
        {"TCP socket", NOWHERE, UniqueFd(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0))},
        {"file", NOWHERE, UniqueFd(open(filePath.c_str(), O_RDONLY | O_CLOEXEC))},
        {"file in memory", NOWHERE, std::move(inMemory)},
        {"file with a memfd's name", NOWHERE, std::move(named)},
        {"folder", NOWHERE, UniqueFd(open(folder.path().c_str(), O_RDONLY | O_CLOEXEC))},
        {"device", NOWHERE, UniqueFd(open("/dev/null", O_RDWR | O_CLOEXEC))},
        {"terminal", NOWHERE, UniqueFd(posix_openpt(O_RDWR | O_NOCTTY | O_CLOEXEC))},
        {"named pipe", NOWHERE, UniqueFd(open((folder / "fifo").c_str(), O_RDWR | O_CLOEXEC))},
        {"epoll", NOWHERE, UniqueFd(epoll_create1(EPOLL_CLOEXEC))},
        {"pidfd", NOWHERE, UniqueFd(static_cast<int>(syscall(SYS_pidfd_open, getpid(), 0)))},
        {"path only", NOWHERE, UniqueFd(open(filePath.c_str(), O_PATH | O_CLOEXEC))},
    };
    return {std::make_move_iterator(std::begin(all)), std::make_move_iterator(std::end(all))};
}

}  // namespace

using DescriptorsTest = TransportFixture;

TEST_F(DescriptorsTest, LetsEachKindCrossWhereItBelongsAndNowhereElse) {
    const std::vector<Kind> kinds = kindsIn(folder, buffer.handle()->data[0]);
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

TEST_F(DescriptorsTest, TakesOrClosesWhateverComesAsControlData) {
    int fds[7];
    for (int& fd : fds)
        fd = memfd_create("file", MFD_CLOEXEC);
    const auto [credentials, first, second, pidfd, ofIp, time, third] = fds;
    const struct {
        int level;
        int type;
        std::vector<int> fds;
    } parts[] = {{SOL_SOCKET, SCM_CREDENTIALS, {credentials}},
                 {SOL_SOCKET, SCM_RIGHTS, {first, second}},
                 {SOL_SOCKET, kPidfd, {pidfd}},
                 {SOL_IP, SCM_RIGHTS, {ofIp}},
                 {SOL_SOCKET, SO_TIMESTAMP, {time}},
                 {SOL_SOCKET, SCM_RIGHTS, {third}}};
    alignas(
        cmsghdr) char control[sizeof(parts) / sizeof(parts[0]) * CMSG_SPACE(2 * sizeof(int))] = {};
    msghdr message = {};
    message.msg_control = control;
    message.msg_controllen = sizeof(control);
    cmsghdr* next = CMSG_FIRSTHDR(&message);
    for (const auto& part : parts) {
        next->cmsg_level = part.level;
        next->cmsg_type = part.type;
        next->cmsg_len = CMSG_LEN(part.fds.size() * sizeof(int));
        memcpy(CMSG_DATA(next), part.fds.data(), part.fds.size() * sizeof(int));
        next = CMSG_NXTHDR(&message, next);
    }
    const ino_t fileOfPidfd = fileOf(pidfd);
    {
        std::vector<UniqueFd> taken;
        host::detail::takeDescriptors(message, taken);
        ASSERT_EQ(taken.size(), 3U);
        EXPECT_EQ(taken[0].get(), first);
        EXPECT_EQ(taken[1].get(), second);
        EXPECT_EQ(taken[2].get(), third);
    }
    EXPECT_NE(fileOf(pidfd), fileOfPidfd);  // another thread may have got the number since
    for (const int fd : {credentials, ofIp, time})
        EXPECT_EQ(close(fd), 0);  // numbers, but no descriptors that came
}

TEST_F(DescriptorsTest, KeepsNoPidfdThatAPeerMakesTheKernelAdd) {
    if (!kernel().addsPidfds) GTEST_SKIP() << "nothing here adds a pidfd (it needs Linux 6.5)";
    auto pair = kit::socketPair();
    const int theirs = pair.second.get();
    const int on = 1;
    const auto set = [&] {
        for (const int option : {SO_PASSCRED, SO_PASSSEC, SO_TIMESTAMP})
            setsockopt(theirs, SOL_SOCKET, option, &on, sizeof(on));
        return setsockopt(theirs, SOL_SOCKET, kPassPidfd, &on, sizeof(on)) == 0;
    };
    ASSERT_TRUE(set());
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
        peer.send(rawMessage({kAnswer, 1, serial, 0}));
        notify();
        EXPECT_EQ(peer.receivedKind(), kCall);
    }
    EXPECT_TRUE(eventually([&] { return kit::Holdings::of().descriptors <= before; }));
    EXPECT_EQ(linesWith("transaction failed"), 0);
}

TEST_F(DescriptorsTest, ReceivesDescriptorsThatNoChildInherits) {
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

TEST_F(DescriptorsTest, LeavesTheKernelNoneToCloseBesideWhatItAdds) {
    if (!kernel().closesWhatHasNoRoom)
        GTEST_SKIP()
            << "what finds no room is neither told of nor closed here: an emulator's fault";
    if (!kernel().addsPidfds) printf("not tried, for want of one: a pidfd beside descriptors\n");
    const auto [mine, theirs] = kit::socketPair();
    const int on = 1;
    for (const int option : {SO_PASSCRED, SO_PASSSEC, SO_TIMESTAMP, kPassPidfd})
        setsockopt(theirs.get(), SOL_SOCKET, option, &on, sizeof(on));
    const std::vector<int> most(host::kMaxArrivingFds, STDERR_FILENO);
    ASSERT_TRUE(kit::sendRaw(mine.get(), "x", 1, most));
    host::detail::Header came = {};
    std::vector<uint8_t> bytes;
    host::Incoming in;
    EXPECT_FALSE(host::detail::receiveMessage(theirs.get(), came, bytes, in, {}).isOk());
    EXPECT_EQ(in.fds.size(), most.size());
}

}  // namespace testing_support
